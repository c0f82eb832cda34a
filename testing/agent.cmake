# The sample web agent: its library part joins qv_testing, and the program sample_agent.
find_package(Threads REQUIRED)
if(NOT TARGET qv_testing)
  add_library(qv_testing STATIC ${CMAKE_CURRENT_SOURCE_DIR}/agent.cpp
                                ${CMAKE_CURRENT_SOURCE_DIR}/agent_cli.cpp)
else()
  target_sources(qv_testing PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/agent.cpp
                                    ${CMAKE_CURRENT_SOURCE_DIR}/agent_cli.cpp)
endif()
target_link_libraries(qv_testing PUBLIC Threads::Threads)

add_executable(sample_agent ${CMAKE_CURRENT_SOURCE_DIR}/sample_agent.cpp)
target_link_libraries(sample_agent PRIVATE qv_testing)

qv_test(qv_agent_test SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/agent_test.cpp LIBS qv_testing)
if(TARGET qv_agent_test)
  target_compile_definitions(qv_agent_test PRIVATE SAMPLE_AGENT_PATH="$<TARGET_FILE:sample_agent>")
  add_dependencies(qv_agent_test sample_agent)
endif()
