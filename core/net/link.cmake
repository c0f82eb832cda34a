# qv_net: the calendar-server connection and framing, and the remote calls. The item
# wire codec adds its sources to this library from codec.cmake.
add_library(qv_net STATIC link.cpp link.h remote.cpp remote.h)
target_link_libraries(qv_net PUBLIC qv_items qv_buf qv_date qv_base)

qv_test(qv_link_test SOURCES link_test.cpp remote_test.cpp LIBS qv_net qv_testing)
