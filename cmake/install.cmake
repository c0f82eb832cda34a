# install.cmake -- what `cmake --install` puts under the prefix, and how another project
# finds it:
#   bin/webquorvel                           the CGI program (copy it into cgi-bin/)
#   bin/quorvel-admin, bin/sample_agent,     the administrator's tool, the sample web
#   bin/sample_calendar                      agent and its sample database writer
#   lib/libqv_*.a                            the core's static libraries
#   include/quorvel/core/<subsystem>/*.h     the public headers; a client adds
#                                            include/quorvel to its path and writes
#                                            #include "core/db/recordfile.h"
#   lib/cmake/quorvel/                       find_package(quorvel CONFIG): quorvel::core
#                                            (everything) and quorvel::<subsystem>
#   lib/pkgconfig/quorvel.pc                 the same for pkg-config
#   share/quorvel/htdocs/icons/              the images the error page refers to
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The core's libraries, highest layer first: a static link needs them in this order.
set(QV_CORE_LIBS)
foreach(lib qv_print qv_alarm qv_notice qv_holiday qv_people qv_net qv_db qv_items qv_buf
            qv_date qv_catalog qv_base)
  if(TARGET ${lib})
    list(APPEND QV_CORE_LIBS ${lib})
  endif()
endforeach()

# One umbrella target over every subsystem; inside the tree and outside it alike, a
# client links quorvel::core or one subsystem as quorvel::<name>.
add_library(qv_core INTERFACE)
target_link_libraries(qv_core INTERFACE ${QV_CORE_LIBS})
set_target_properties(qv_core PROPERTIES EXPORT_NAME core)
add_library(quorvel::core ALIAS qv_core)
set(QV_PC_LIBS "")
foreach(lib ${QV_CORE_LIBS})
  string(REGEX REPLACE "^qv_" "" short ${lib})
  set_target_properties(${lib} PROPERTIES EXPORT_NAME ${short})
  target_include_directories(${lib} INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/quorvel>)
  add_library(quorvel::${short} ALIAS ${lib})
  string(APPEND QV_PC_LIBS " -l${lib}")
endforeach()

install(TARGETS ${QV_CORE_LIBS} qv_core EXPORT quorvelTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/core/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quorvel/core
        FILES_MATCHING PATTERN "*.h"
        PATTERN "*test_util.h" EXCLUDE)
install(EXPORT quorvelTargets NAMESPACE quorvel::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quorvel)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/quorvelConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/quorvelConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quorvel)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/quorvelConfigVersion.cmake
  VERSION 1.0.0 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quorvelConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/quorvelConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quorvel)
configure_file(${CMAKE_CURRENT_LIST_DIR}/quorvel.pc.in ${CMAKE_CURRENT_BINARY_DIR}/quorvel.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quorvel.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The programs: the gateway, the administrator's tool, and the sample web agent with the
# writer of its sample calendar database (to try a deployment before the real agent).
foreach(program webquorvel sample_agent sample_calendar)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()
if(EXISTS ${PROJECT_SOURCE_DIR}/htdocs/icons)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/htdocs/icons
          DESTINATION ${CMAKE_INSTALL_DATADIR}/quorvel/htdocs)
endif()

# The installed package works from outside the tree: install into a temporary prefix and
# build the examples against it (not under the sanitizers, whose runtime the examples
# would not link).
if(QV_TESTS AND NOT QV_SANITIZE AND NOT QV_FUZZ AND PROJECT_IS_TOP_LEVEL)
  add_test(NAME InstallAndBuildExamples
           COMMAND bash ${PROJECT_SOURCE_DIR}/scripts/install_check.sh ${CMAKE_BINARY_DIR})
  set_tests_properties(InstallAndBuildExamples PROPERTIES TIMEOUT 300)
endif()
