# find_package(HalvoIPC) gives the imported target HalvoIPC::halvoipc.
include(${CMAKE_CURRENT_LIST_DIR}/HalvoIPCTargets.cmake)
