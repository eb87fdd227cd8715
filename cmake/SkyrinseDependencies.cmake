# Every dependency comes from a Debian package that scripts/setup installs.

find_package(Qt6 6.4 REQUIRED COMPONENTS Core Gui Widgets Xml LinguistTools)
find_package(OpenMP REQUIRED)
find_package(PkgConfig REQUIRED)

set(BLA_VENDOR OpenBLAS)
find_package(BLAS REQUIRED)
find_package(LAPACK REQUIRED)

find_path(METIS_INCLUDE_DIR metis.h REQUIRED)
find_library(METIS_LIBRARY metis REQUIRED)
add_library(Skyrinse::metis INTERFACE IMPORTED)
target_include_directories(Skyrinse::metis INTERFACE ${METIS_INCLUDE_DIR})
target_link_libraries(Skyrinse::metis INTERFACE ${METIS_LIBRARY})

# pkg-config rather than OpenImageIO's CMake package, which insists on its
# command-line tools being installed too.
pkg_check_modules(OIIO REQUIRED IMPORTED_TARGET OpenImageIO)
add_library(Skyrinse::oiio ALIAS PkgConfig::OIIO)
pkg_check_modules(EXIV2 REQUIRED IMPORTED_TARGET exiv2)
add_library(Skyrinse::exiv2 ALIAS PkgConfig::EXIV2)

if(SKYRINSE_BUILD_TESTS)
    find_package(GTest REQUIRED)
endif()
if(SKYRINSE_BUILD_BENCH)
    find_package(benchmark QUIET)
endif()
