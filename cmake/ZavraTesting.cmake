# Helpers shared by the folders' CMakeLists.

# zavra_library(<name> [DEPS libs...]): a static library from every .cpp of the calling folder.
function(zavra_library name)
    cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    if(sources)
        add_library(${name} STATIC ${sources})
        target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
        target_link_libraries(${name} PUBLIC ${ARG_DEPS})
    else()
        # A folder whose sources have not landed yet: headers and dependencies only.
        add_library(${name} INTERFACE)
        target_include_directories(${name} INTERFACE ${CMAKE_CURRENT_SOURCE_DIR})
        target_link_libraries(${name} INTERFACE ${ARG_DEPS})
    endif()
endfunction()

# zavra_gtest(<name> SOURCES files... [DEPS libs...] [PROPERTIES ...]):
# a GoogleTest binary whose cases ctest runs one by one (in parallel with -j).
function(zavra_gtest name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PROPERTIES" ${ARGN})
    find_package(GTest REQUIRED)
    include(GoogleTest)
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gtest_main GTest::gmock)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 ${ARG_PROPERTIES})
endfunction()
