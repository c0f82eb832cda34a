# The calendar benchmark's peer (calendar_bench.sh): the sample agent in calendar mode,
# live or answering with a reply captured once.
if(TARGET qv_testing)
  add_executable(calendar_agent ${CMAKE_CURRENT_LIST_DIR}/calendar_agent.cpp)
  target_link_libraries(calendar_agent PRIVATE qv_testing)
endif()
