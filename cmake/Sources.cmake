# Every source of a room belongs to the library: a new file needs no edit here.
set(ORBEL_ROOMS frame thread time net ipc memory log config object file client utils)
set(ORBEL_SOURCES)
foreach(room IN LISTS ORBEL_ROOMS)
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${room}/*.cpp)
    list(APPEND ORBEL_SOURCES ${sources})
endforeach()
