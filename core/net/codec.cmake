# codec.cmake -- the item wire codec joins qv_net (created by link.cmake when present).
if(TARGET qv_net)
  target_sources(qv_net PRIVATE itemcodec.cpp)
else()
  add_library(qv_net STATIC itemcodec.cpp)
endif()
target_link_libraries(qv_net PUBLIC qv_items qv_buf qv_date qv_base)

qv_test(qv_itemcodec_test SOURCES itemcodec_test.cpp LIBS qv_net)
