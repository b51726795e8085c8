# The development queue manager: as a library, which tests and demonstration use too, and as a
# program.
add_library(halvo_qm_segment STATIC
  qm_check.cpp
  qm_check_geometry.cpp
  qm_check_semaphores.cpp
  qm_check_slots.cpp
  qm_config.cpp
  qm_create.cpp
  qm_keys.cpp
  qm_list.cpp
  qm_objects.cpp
  qm_plan.cpp
  qm_remove.cpp
  qm_text.cpp
  qm_view.cpp)
target_link_libraries(halvo_qm_segment PUBLIC halvo_options)

add_executable(halvo-qm halvo_qm.cpp qm_repair.cpp)
target_link_libraries(halvo-qm PRIVATE halvo_qm_segment halvo_message_tool)
target_compile_definitions(halvo-qm PRIVATE HALVO_QM_VERSION="${PROJECT_VERSION}")
