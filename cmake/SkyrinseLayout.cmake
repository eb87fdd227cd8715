# Where things go when installed, decided before the subsystems are added since
# the host compiles in where it looks for the plug-in, and before the
# dependencies, whose packages would settle the library folder otherwise.

# Debian keeps libraries and Qt's plug-ins in the multiarch folder whatever
# the prefix, so a tree installed under /opt or a temporary prefix looks like
# the package's.
if(CMAKE_LIBRARY_ARCHITECTURE AND NOT DEFINED CACHE{CMAKE_INSTALL_LIBDIR})
    set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}" CACHE PATH
        "Object code libraries (LIBDIR)")
endif()
include(GNUInstallDirs)

# The Qt plug-in folder of the installation, relative to the prefix.
set(SKYRINSE_PLUGIN_INSTALL_DIR "${CMAKE_INSTALL_LIBDIR}/qt6/plugins/skyrinse")

# Installed programs and the plug-in find the project's libraries relative to
# themselves, so the tree can be installed under any prefix.
file(RELATIVE_PATH skyrinse_bin_to_lib "/${CMAKE_INSTALL_BINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
set(CMAKE_INSTALL_RPATH "$ORIGIN/${skyrinse_bin_to_lib}")

file(RELATIVE_PATH SKYRINSE_BIN_TO_PLUGIN_DIR "/${CMAKE_INSTALL_BINDIR}"
     "/${SKYRINSE_PLUGIN_INSTALL_DIR}")

# skyrinse_versioned_library(target): a shared library of the ABI version 1
# (libNAME.so.1), raised whenever a change breaks existing callers. Calls
# inside the library may be inlined, since nothing is meant to interpose them.
set(SKYRINSE_ABI_VERSION 1)
function(skyrinse_versioned_library target)
    set_target_properties(${target} PROPERTIES
        VERSION ${SKYRINSE_ABI_VERSION}.${PROJECT_VERSION_MINOR}.${PROJECT_VERSION_PATCH}
        SOVERSION ${SKYRINSE_ABI_VERSION}
        INSTALL_RPATH "$ORIGIN")
    target_compile_options(${target} PRIVATE -fno-semantic-interposition)
endfunction()
