# wire.cmake -- the wire benchmark compares the item codec with Protocol Buffers: generate
# the message classes from wire.proto and link the runtime into wire_bench.
if(TARGET wire_bench)
  find_package(Protobuf REQUIRED)
  protobuf_generate_cpp(WIRE_PROTO_SRCS WIRE_PROTO_HDRS ${CMAKE_CURRENT_SOURCE_DIR}/wire.proto)
  # Generated code is not ours to keep warning-free.
  set_source_files_properties(${WIRE_PROTO_SRCS} PROPERTIES COMPILE_OPTIONS "-w;-Wno-error")
  target_sources(wire_bench PRIVATE ${WIRE_PROTO_SRCS})
  target_include_directories(wire_bench SYSTEM PRIVATE ${CMAKE_CURRENT_BINARY_DIR} ${Protobuf_INCLUDE_DIRS})
  target_link_libraries(wire_bench PRIVATE ${Protobuf_LIBRARIES})
endif()
