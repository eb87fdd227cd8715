# What `cmake --install` puts where, the descriptions other projects link SPDS
# with (CMake package, pkg-config), the manual pages and the Debian package.
include(CMakePackageConfigHelpers)

install(TARGETS skyrinse spds-solve haze-inspect RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The image model that host and plug-in share: a private library of the
# package, so no link-time name or headers are installed.
install(TARGETS zimage LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP)

# The plug-in finds SPDS, the runtime and the image model three folders up,
# in the libraries' folder.
set_target_properties(ZHaze PROPERTIES INSTALL_RPATH "$ORIGIN/../../..")
install(TARGETS ZHaze LIBRARY DESTINATION ${SKYRINSE_PLUGIN_INSTALL_DIR})

# SPDS and the runtime services: libspds.so.1, libnrt.so.1, their C headers
# and the Fortran interface.
foreach(library spds nrt)
    target_include_directories(${library} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endforeach()
install(TARGETS spds nrt EXPORT SPDSTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/solver/spds.h ${PROJECT_SOURCE_DIR}/runtime/nrt.h
              ${PROJECT_SOURCE_DIR}/solver/spds.f90
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(spds_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/SPDS)
install(EXPORT SPDSTargets NAMESPACE SPDS:: DESTINATION ${spds_cmake_dir})
file(WRITE ${PROJECT_BINARY_DIR}/SPDSConfig.cmake
     "# find_package(SPDS) gives SPDS::spds (spds.h) and SPDS::nrt (nrt.h).\n"
     "include(\${CMAKE_CURRENT_LIST_DIR}/SPDSTargets.cmake)\n")
write_basic_package_version_file(${PROJECT_BINARY_DIR}/SPDSConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/SPDSConfig.cmake ${PROJECT_BINARY_DIR}/SPDSConfigVersion.cmake
        DESTINATION ${spds_cmake_dir})

# pkg-config: the prefix is found from the file's own place, so the tree works
# wherever it is installed.
set(spds_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH SPDS_PC_TO_PREFIX "/${spds_pc_dir}" "/")
configure_file(${CMAKE_CURRENT_LIST_DIR}/spds.pc.in ${PROJECT_BINARY_DIR}/spds.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/spds.pc DESTINATION ${spds_pc_dir})

# Manual pages, made by help2man from each command's --help, so that the page
# and the help can never tell different stories.
find_program(HELP2MAN help2man)
if(HELP2MAN)
    set(man_pages)
    foreach(entry "skyrinse|remove atmospheric haze from photographs"
                  "spds-solve|solve a Matrix Market system with the SPDS sparse direct solver"
                  "haze-inspect|write every stage of the haze removal of a picture")
        string(REPLACE "|" ";" entry "${entry}")
        list(GET entry 0 command)
        list(GET entry 1 summary)
        set(page ${PROJECT_BINARY_DIR}/man/${command}.1)
        add_custom_command(OUTPUT ${page}
            COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
            COMMAND ${CMAKE_COMMAND} -E env QT_QPA_PLATFORM=offscreen
                    ${HELP2MAN} --no-info --no-discard-stderr --section=1
                    --version-string=${PROJECT_VERSION} --name=${summary}
                    --output=${page} $<TARGET_FILE:${command}>
            DEPENDS ${command}
            COMMENT "Manual page of ${command}")
        list(APPEND man_pages ${page})
    endforeach()
    add_custom_target(man ALL DEPENDS ${man_pages})
    install(FILES ${man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
else()
    message(STATUS "help2man not found: no manual pages (scripts/setup installs it)")
endif()

# make package: one Debian package of the whole, its dependencies found by
# dpkg-shlibdeps from the libraries the programs link.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME skyrinse)
set(CPACK_PACKAGE_VENDOR "Skyrinse")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION "skyrinse removes atmospheric haze from photographs through a \
Qt 6 plug-in; spds-solve and the libspds library solve large sparse linear systems.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Skyrinse developers <skyrinse@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/runtime ${PROJECT_BINARY_DIR}/solver
    ${PROJECT_BINARY_DIR}/ZImage)
include(CPack)
