# Record files: the text form of items, the reader, the atomic rewrite and the cache.
target_sources(qv_db PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/record_write.cpp
  ${CMAKE_CURRENT_LIST_DIR}/record_parse.cpp
  ${CMAKE_CURRENT_LIST_DIR}/record_read.cpp
  ${CMAKE_CURRENT_LIST_DIR}/recordfile.cpp
  ${CMAKE_CURRENT_LIST_DIR}/record_cache.cpp)

qv_test(qv_record_test
  SOURCES record_write_test.cpp record_read_test.cpp recordfile_test.cpp record_test_util.cpp db_test_util.cpp
  LIBS qv_db)

# Failure paths of the rewrite: rename, unlink, stat and fsync are interposed at link
# time by the __wrap_ functions of recordfile_wrap_test.cpp.
qv_test(qv_record_wrap_test
  SOURCES recordfile_wrap_test.cpp record_test_util.cpp db_test_util.cpp
  LIBS qv_db)
if(TARGET qv_record_wrap_test)
  target_link_options(qv_record_wrap_test PRIVATE
    "LINKER:--wrap=rename,--wrap=unlink,--wrap=stat,--wrap=fsync")
endif()

# The crash test kills a helper program (not the product) part-way through rewrites.
if(QV_TESTS)
  add_executable(record_crash_child record_crash_child.cpp record_test_util.cpp)
  target_link_libraries(record_crash_child PRIVATE qv_db)
  target_link_options(record_crash_child PRIVATE
    "LINKER:--wrap=fwrite,--wrap=fsync,--wrap=fclose,--wrap=rename,--wrap=unlink,--wrap=link")
endif()
qv_test(qv_record_crash_test
  SOURCES record_crash_test.cpp record_test_util.cpp db_test_util.cpp
  LIBS qv_db)
if(TARGET qv_record_crash_test)
  add_dependencies(qv_record_crash_test record_crash_child)
  target_compile_definitions(qv_record_crash_test PRIVATE
    CRASH_CHILD="$<TARGET_FILE:record_crash_child>")
endif()
