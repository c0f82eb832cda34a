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
