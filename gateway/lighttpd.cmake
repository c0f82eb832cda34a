# The gateway under a real web server: lighttpd runs webquorvel through mod_cgi from a
# temporary web root laid out by scripts/webroot.sh, against the sample web agent.
if(QV_TESTS AND TARGET webquorvel AND TARGET qv_testing)
  qv_test(lighttpd_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/lighttpd_test.cpp LIBS qv_testing)
  target_compile_definitions(lighttpd_test PRIVATE
    QV_WEBQUORVEL="$<TARGET_FILE:webquorvel>" QV_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  add_dependencies(lighttpd_test webquorvel)
endif()

# The deployment recipes for lighttpd, Apache and nginx + fcgiwrap, run for real, with
# headless chromium screenshots in the build tree's artefacts/.
if(QV_TESTS AND TARGET webquorvel AND TARGET qv_testing)
  qv_test(qv_webservers_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/webservers_test.cpp LIBS qv_testing)
  target_compile_definitions(qv_webservers_test PRIVATE
    QV_WEBQUORVEL="$<TARGET_FILE:webquorvel>" QV_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    QV_ARTEFACTS="${CMAKE_BINARY_DIR}/artefacts")
  add_dependencies(qv_webservers_test webquorvel)
endif()
