# The floor program of the whole-process gateway benchmark (gateway_bench.sh): a minimal
# static C client doing the same agent exchange and file writes as webquorvel.
# Sanitizer and fuzz builds cannot link it statically, and do not need it.
if(NOT QV_SANITIZE AND NOT QV_FUZZ)
  add_executable(gateway_floor ${CMAKE_CURRENT_LIST_DIR}/gateway_floor.c)
  target_compile_options(gateway_floor PRIVATE -O2)
  target_link_options(gateway_floor PRIVATE -static)
endif()
