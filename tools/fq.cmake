# halvo-fq: the file queue at a terminal.
add_executable(halvo-fq halvo_fq.cpp fq_inspect.cpp fq_report.cpp)
target_link_libraries(halvo-fq PRIVATE halvo_message_tool)
