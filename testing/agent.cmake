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

# The calendar mode: views of a calendar database read through the core.
target_sources(qv_testing PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/calendar_query.cpp
                                  ${CMAKE_CURRENT_SOURCE_DIR}/calendar_view.cpp
                                  ${CMAKE_CURRENT_SOURCE_DIR}/calendar_page.cpp)
target_link_libraries(qv_testing PUBLIC qv_print qv_holiday qv_people)

# sample_calendar ROOT YEAR MONTH [BULK]: the demo's small calendar database.
add_executable(sample_calendar ${CMAKE_CURRENT_SOURCE_DIR}/sample_calendar.cpp)

qv_test(qv_calendar_view_test SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/calendar_view_test.cpp LIBS qv_testing)

# The month view through lighttpd and the gateway, with chromium screenshots in
# artefacts/ (the gateway's program is defined in gateway/, after this directory).
qv_test(qv_calendar_web_test SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/calendar_web_test.cpp LIBS qv_testing)
if(TARGET qv_calendar_web_test)
  target_compile_definitions(qv_calendar_web_test PRIVATE
    QV_WEBQUORVEL="$<TARGET_FILE:webquorvel>" QV_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    QV_SAMPLE_CALENDAR="$<TARGET_FILE:sample_calendar>" QV_ARTEFACTS="${CMAKE_BINARY_DIR}/artefacts")
  add_dependencies(qv_calendar_web_test webquorvel sample_calendar)
endif()
