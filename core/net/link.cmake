# qv_net: the calendar-server connection and framing, and the remote calls. The item
# wire codec adds its sources to this library from codec.cmake.
add_library(qv_net STATIC link.cpp link.h remote.cpp remote.h)
target_link_libraries(qv_net PUBLIC qv_items qv_buf qv_date qv_base)

qv_test(qv_link_test SOURCES link_test.cpp remote_test.cpp LIBS qv_net qv_testing)

# The receive loop's failed waits and empty wake-ups: poll and recv are interposed at
# link time by the __wrap_ functions of link_wrap_test.cpp.
qv_test(qv_link_wrap_test SOURCES link_wrap_test.cpp LIBS qv_net)
if(TARGET qv_link_wrap_test)
  target_link_options(qv_link_wrap_test PRIVATE "LINKER:--wrap=poll,--wrap=recv")
endif()
