# The Debian packages, one per install component, which scripts/packages makes with cpack.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qel)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_PACKAGE_CONTACT "The Qel developers <developers@qel.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Where the dependencies of the programs find the libraries of this project.
foreach(name core gl model RenderPasses graph)
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/src/Qel/${name}")
endforeach()

set(changelog "${PROJECT_BINARY_DIR}/changelog.Debian.gz")
execute_process(COMMAND gzip -9 -n --stdout "${PROJECT_SOURCE_DIR}/cmake/debian/changelog"
    OUTPUT_FILE "${changelog}" COMMAND_ERROR_IS_FATAL ANY)

# qel_package(COMPONENT NAME SECTION SUMMARY DESCRIPTION [ALL] [DEPENDS PACKAGE...])
# makes the package NAME of an install component. ALL is for one that is the same on every machine.
macro(qel_package component name section summary description)
    cmake_parse_arguments(ARG "ALL" "" "DEPENDS" ${ARGN})
    string(TOUPPER ${component} upper)
    list(JOIN ARG_DEPENDS ", " depends)
    list(APPEND CPACK_COMPONENTS_ALL ${component})
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
    set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${description}")
    if(ARG_ALL)
        set(CPACK_DEBIAN_${upper}_PACKAGE_ARCHITECTURE all)
    else()
        set(CPACK_DEBIAN_${upper}_PACKAGE_SHLIBDEPS ON)
    endif()
    # Only packages hold these files, not an installation by CMake.
    install(FILES "${PROJECT_SOURCE_DIR}/cmake/debian/copyright" "${changelog}"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${name}" COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()

set(version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(abi "${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}")
qel_package(libraries libqel${abi} libs "OpenGL render passes wired into graphs"
    "Passes that draw scenes, light them and process the images, each with typed\ninput and output ports, and graphs that run them once per frame."
    DEPENDS libegl-mesa0 libgl1-mesa-dri)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/cmake/debian/triggers")
qel_package(development libqel-dev libdevel "OpenGL render passes wired into graphs - development files"
    "Headers, the CMake package and the pkg-config files of the libraries."
    DEPENDS "libqel${abi} (= ${version})" qt6-base-dev libepoxy-dev)
qel_package(program qel graphics "OpenGL render passes wired into graphs - command line"
    "The program qel renders images with graphs of render passes, needs no display,\nchecks graph files, and compares images."
    DEPENDS "libqel${abi} (= ${version})" qt6-image-formats-plugins)
if(TARGET qel-viewer)
    qel_package(viewer qel-viewer graphics "OpenGL render passes wired into graphs - viewer"
        "The program qel-viewer shows the images of a graph of render passes in a\nwindow, with controls for all inputs, inner textures and times."
        DEPENDS "libqel${abi} (= ${version})" qt6-image-formats-plugins)
endif()
qel_package(documentation qel-doc doc "OpenGL render passes wired into graphs - documentation"
    "The manual, the example graphs, and example programs that embed the libraries."
    ALL)

set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/CompressManual.cmake")
include(CPack)
