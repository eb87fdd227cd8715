# Compiler set-up shared by every target of the project.

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

add_compile_options(-Wall -Wextra)
if(SKYRINSE_WERROR)
    add_compile_options(-Werror)
endif()

# Locations in exception texts name files relative to the source tree, so that
# they do not depend on where the project was checked out.
add_compile_options(-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)

set(SKYRINSE_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address,undefined or thread")
if(SKYRINSE_SANITIZE)
    add_compile_options(-fsanitize=${SKYRINSE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${SKYRINSE_SANITIZE})
endif()

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()
