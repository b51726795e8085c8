# halvo-mon: the monitoring program. Its parts are a library, which the tests use too.
add_library(halvo_mon_parts STATIC
  halvo_mon_check.cpp
  halvo_mon_prometheus.cpp
  halvo_mon_screen.cpp
  halvo_mon_segment.cpp
  halvo_mon_text.cpp)
target_link_libraries(halvo_mon_parts PUBLIC halvo_message_tool)
add_executable(halvo-mon halvo_mon.cpp)
target_link_libraries(halvo-mon PRIVATE halvo_mon_parts)
