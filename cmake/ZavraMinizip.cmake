# zlib and minizip for the crash zip, as the target zavra::minizip. pkg-config knows where Debian
# keeps minizip's headers; where pkg-config is missing the same places are searched directly.
# In a static build the library searches take only archives (set at the top level).
if(TARGET zavra::minizip)
    return()
endif()

find_package(ZLIB REQUIRED)
find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
    pkg_check_modules(MINIZIP QUIET IMPORTED_TARGET minizip)
endif()

add_library(zavra::minizip INTERFACE IMPORTED GLOBAL)
if(TARGET PkgConfig::MINIZIP)
    target_link_libraries(zavra::minizip INTERFACE PkgConfig::MINIZIP)
else()
    find_path(ZAVRA_MINIZIP_INCLUDE_DIR zip.h PATH_SUFFIXES minizip REQUIRED)
    find_library(ZAVRA_MINIZIP_LIBRARY minizip REQUIRED)
    target_include_directories(zavra::minizip INTERFACE ${ZAVRA_MINIZIP_INCLUDE_DIR})
    target_link_libraries(zavra::minizip INTERFACE ${ZAVRA_MINIZIP_LIBRARY})
endif()
# minizip's own link line leaves zlib to the shared library's dependencies; a static link
# needs it named, after minizip.
target_link_libraries(zavra::minizip INTERFACE ZLIB::ZLIB)
