# halvo-send and halvo-recv: messages from and to files, over the guarded interface.
add_library(halvo_message_tool STATIC message_tool.cpp line_reader.cpp)
target_link_libraries(halvo_message_tool PUBLIC halvo_options halvoipc)
target_compile_definitions(halvo_message_tool PUBLIC HALVOIPC_VERSION="${PROJECT_VERSION}")

foreach(direction IN ITEMS send recv)
  add_executable(halvo-${direction} halvo_${direction}.cpp)
  target_link_libraries(halvo-${direction} PRIVATE halvo_message_tool)
endforeach()
