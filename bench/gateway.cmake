# The floor program of the whole-process gateway benchmark (gateway_bench.sh): a minimal
# static C client doing the same agent exchange and file writes as webquorvel.
# Sanitizer and fuzz builds cannot link it statically, and do not need it.
if(NOT QV_SANITIZE AND NOT QV_FUZZ)
  add_executable(gateway_floor ${CMAKE_CURRENT_LIST_DIR}/gateway_floor.c)
  target_compile_options(gateway_floor PRIVATE -O2)
  target_link_options(gateway_floor PRIVATE -static)
endif()

# The benchmark's peer: the sample web agent answering every request with one scenario.
if(TARGET qv_testing)
  add_executable(gateway_agent ${CMAKE_CURRENT_LIST_DIR}/gateway_agent.cpp)
  target_link_libraries(gateway_agent PRIVATE qv_testing)
endif()

# The runner that takes turns between the programs it measures.
add_executable(gateway_runner ${CMAKE_CURRENT_LIST_DIR}/gateway_runner.c)
target_compile_options(gateway_runner PRIVATE -O2)
