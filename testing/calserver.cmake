# The fake calendar server: a scriptable loopback peer speaking the server framing.
if(NOT TARGET qv_testing)
  add_library(qv_testing STATIC calserver.cpp calserver.h)
else()
  target_sources(qv_testing PRIVATE calserver.cpp calserver.h)
endif()
find_package(Threads REQUIRED)
target_link_libraries(qv_testing PUBLIC Threads::Threads)
