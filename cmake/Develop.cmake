# Everything around the library: each directory's rule is in the comment above its loop.
target_compile_options(orbel_objects PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)

find_package(GTest REQUIRED)
find_package(benchmark REQUIRED)
find_program(ORBEL_LLD ld.lld)
if(ORBEL_LLD)
    add_link_options(-fuse-ld=lld)  # hundreds of programs: the usual linker takes twice as long
endif()
enable_testing()

function(orbel_program source directory)
    get_filename_component(name ${source} NAME_WE)
    add_executable(${name} ${source})
    set_target_properties(${name} PROPERTIES
        CXX_EXTENSIONS OFF RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${directory})
    target_compile_features(${name} PRIVATE cxx_std_20)
    target_compile_options(${name} PRIVATE -Wall -Wextra -Wshadow -Werror)
    target_link_libraries(${name} PRIVATE ${ARGN})
endfunction()

# tests/<subsystem>/*Test.cpp: one GoogleTest program and one test each; *Helper.cpp: one helper
# program each, found by the tests beside themselves. Both see the internal classes, but for
# *SharedHelper.cpp, which link the shared library as an application does.
file(GLOB tests CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/*/*Test.cpp)
file(GLOB helpers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/*/*Helper.cpp)
add_custom_target(helpers)
foreach(source IN LISTS helpers)
    set(library orbel_static)
    if(source MATCHES "SharedHelper[.]cpp$")
        set(library orbel::orbel)
    endif()
    orbel_program(${source} tests ${library})
    get_filename_component(name ${source} NAME_WE)
    add_dependencies(helpers ${name})
endforeach()
foreach(source IN LISTS tests)
    orbel_program(${source} tests orbel_static GTest::gtest_main)
    get_filename_component(name ${source} NAME_WE)
    add_dependencies(${name} helpers)
    add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
    set_tests_properties(${name} PROPERTIES TIMEOUT 300)
    if(name MATCHES "LongTest$")
        set_tests_properties(${name} PROPERTIES LABELS long)  # a minute and more: ./run test long
    endif()
endforeach()

target_compile_definitions(FormatsTest PRIVATE ORBEL_SOURCE_DIR="${PROJECT_SOURCE_DIR}")

# examples/plugins/*.cpp, tests/<subsystem>/plugins/*.cpp: one plug-in each, a library that is loaded
# by its path, plugins/<name>.so. Those of the examples use the library, as an application's do.
file(GLOB plugins CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/examples/plugins/*.cpp ${PROJECT_SOURCE_DIR}/tests/*/plugins/*.cpp)
foreach(source IN LISTS plugins)
    get_filename_component(name ${source} NAME_WE)
    add_library(${name} MODULE ${source})
    set_target_properties(${name} PROPERTIES
        PREFIX "" CXX_EXTENSIONS OFF CXX_VISIBILITY_PRESET hidden
        LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/plugins)
    target_compile_features(${name} PRIVATE cxx_std_20)
    target_compile_options(${name} PRIVATE -Wall -Wextra -Wshadow -Werror)
    if(source MATCHES "/examples/plugins/")
        target_link_libraries(${name} PRIVATE orbel::orbel)
    else()
        target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/include)
    endif()
    add_dependencies(helpers ${name})
endforeach()

# bench/*Bench.cpp: one Google Benchmark program each; bench/*.cpp: programs with a main of their
# own. tools/*.cpp: one program each; these see the internals. examples/*.cpp see what an
# application sees.
file(GLOB benches CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/bench/*.cpp)
add_custom_target(benches)
foreach(source IN LISTS benches)
    if(source MATCHES "Bench.cpp$")
        orbel_program(${source} bench orbel_static benchmark::benchmark_main)
    else()
        orbel_program(${source} bench orbel_static)
    endif()
    get_filename_component(name ${source} NAME_WE)
    add_dependencies(benches ${name})
endforeach()
# The index queue and the logger are measured beside others.
find_package(TBB REQUIRED)
target_link_libraries(IndexQueueBench PRIVATE TBB::tbb)
find_package(spdlog REQUIRED)
target_link_libraries(LogBench PRIVATE spdlog::spdlog)
foreach(directory examples tools)
    set(library orbel_static)
    if(directory STREQUAL examples)
        set(library orbel::orbel)
    endif()
    file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${directory}/*.cpp)
    foreach(source IN LISTS sources)
        orbel_program(${source} ${directory} ${library})
        get_filename_component(name ${source} NAME_WE)
        add_dependencies(helpers ${name})  # tests run these too
    endforeach()
endforeach()
add_dependencies(demo publisher subscriber log_server)  # which it runs

# The complete program of each guide is built and run as a test, that of the README built only (its
# names are fixed): what a newcomer copies works.
file(GLOB guides CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/guide/*.md)
foreach(page IN LISTS guides ITEMS ${PROJECT_SOURCE_DIR}/README.md)
    get_filename_component(name ${page} NAME_WE)
    set(source ${PROJECT_BINARY_DIR}/guide/guide_${name}.cpp)
    add_custom_command(OUTPUT ${source} DEPENDS ${page} tools/guide_example.sh
        COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/guide
        COMMAND ${PROJECT_SOURCE_DIR}/tools/guide_example.sh ${page} ${source})
    orbel_program(${source} guide orbel::orbel)
    if(NOT name STREQUAL README)
        add_test(NAME guide_${name} COMMAND guide_${name})
        set_tests_properties(guide_${name} PROPERTIES
            TIMEOUT 60 WORKING_DIRECTORY ${PROJECT_BINARY_DIR}/guide)
    endif()
endforeach()

# fuzz/*Fuzz.cpp: one target each. The fuzz preset links them with the fuzzer, for ./run fuzz; the
# others with a main that tries what stands in fuzz/corpus/<target>, as a test.
file(GLOB targets CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/fuzz/*Fuzz.cpp)
foreach(source IN LISTS targets)
    get_filename_component(name ${source} NAME_WE)
    orbel_program(${source} fuzz orbel_static)
    if(CMAKE_BUILD_TYPE STREQUAL Fuzz)
        target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    else()
        target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/fuzz/replay.cpp)
        string(REGEX REPLACE "Fuzz$" "" corpus ${name})
        string(TOLOWER ${corpus} corpus)
        file(GLOB inputs CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/fuzz/corpus/${corpus}/*)
        add_test(NAME ${name} COMMAND ${name} ${inputs})
    endif()
endforeach()

# What is installed can be used from outside, and exports what the list says. The sanitizers'
# builds add symbols of their own and are not installed.
if(NOT CMAKE_BUILD_TYPE MATCHES "^(Asan|Tsan|Fuzz)$")
    add_test(NAME install COMMAND ${PROJECT_SOURCE_DIR}/tests/install/install_test.sh ${PROJECT_BINARY_DIR})
    add_test(NAME package COMMAND ${PROJECT_SOURCE_DIR}/tests/install/package_test.sh ${PROJECT_BINARY_DIR})
    find_program(ORBEL_ABIDIFF abidiff)
    if(ORBEL_ABIDIFF)
        add_test(NAME abi COMMAND ${PROJECT_SOURCE_DIR}/tests/install/abi_test.sh $<TARGET_FILE:orbel>)
    endif()
    add_test(NAME exports COMMAND ${PROJECT_SOURCE_DIR}/tests/install/exports_test.sh $<TARGET_FILE:orbel>)
endif()
