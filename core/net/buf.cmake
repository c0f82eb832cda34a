# qv_buf: message buffers, calendar sets and their net encodings, the name-lookup
# interface, and date-times inside buffers.
add_library(qv_buf STATIC buf.cpp calset.cpp namelookup.cpp netdate.cpp)
target_link_libraries(qv_buf PUBLIC qv_date qv_base)

qv_test(qv_buf_test SOURCES buf_test.cpp calset_test.cpp netdate_test.cpp LIBS qv_buf)
