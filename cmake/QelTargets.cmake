# Functions that define the targets of this project.

# The include folder: <Qel/gl/Texture.h> is src/Qel/gl/Texture.h.
set(QEL_INCLUDE_DIR "${PROJECT_SOURCE_DIR}/src")

# What __FILE__ names is below the source folder, so that no message shows a path of the build machine. Compiler
# caches may pass paths relative to the build folder. A cache knows -ffile-prefix-map and shares objects between
# checkouts, which it does not with -fmacro-prefix-map.
file(RELATIVE_PATH source_from_build "${PROJECT_BINARY_DIR}" "${PROJECT_SOURCE_DIR}")
set(QEL_PREFIX_MAPS "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=" "-fmacro-prefix-map=${source_from_build}=")

# Sets the compile options of a target; none of them are exported.
function(qel_compile_options target)
    set_target_properties(${target} PROPERTIES
        CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF
        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON)
    target_compile_features(${target} PUBLIC cxx_std_20)
    target_compile_definitions(${target} PRIVATE QT_NO_CAST_TO_ASCII QT_NO_KEYWORDS QT_NO_NARROWING_CONVERSIONS_IN_CONNECT)
    if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
        # Clang counts signedness among the conversions, GCC does not.
        target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
            $<$<CXX_COMPILER_ID:Clang>:-Wno-sign-conversion> ${QEL_PREFIX_MAPS} $<$<BOOL:${QEL_WARNINGS_AS_ERRORS}>:-Werror>)
    endif()
    if(QEL_SANITIZE)
        target_compile_options(${target} PRIVATE -fsanitize=${QEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE -fsanitize=${QEL_SANITIZE})
    endif()
    if(QEL_PRECOMPILE_HEADERS)
        target_precompile_headers(${target} PRIVATE "${PROJECT_SOURCE_DIR}/cmake/Precompiled.h")
    endif()
endfunction()

# qel_add_library(GL [AUTOMOC] HEADERS ... SOURCES ... PUBLIC ... PRIVATE ...)
# defines libQelGL, alias Qel::GL, in the calling folder. HEADERS are installed under their path below src; headers
# among SOURCES are private.
function(qel_add_library name)
    cmake_parse_arguments(ARG "AUTOMOC" "" "HEADERS;SOURCES;PUBLIC;PRIVATE" ${ARGN})
    set(target Qel${name})
    add_library(${target} ${ARG_HEADERS} ${ARG_SOURCES})
    add_library(Qel::${name} ALIAS ${target})
    qel_compile_options(${target})

    target_include_directories(${target} PUBLIC
        "$<BUILD_INTERFACE:${QEL_INCLUDE_DIR}>" "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
    string(TOUPPER ${name} upper)
    target_compile_definitions(${target} PRIVATE QEL_${upper}_BUILD)
    if(NOT BUILD_SHARED_LIBS)
        target_compile_definitions(${target} PUBLIC QEL_STATIC)
    endif()
    target_link_libraries(${target} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
    set_target_properties(${target} PROPERTIES
        EXPORT_NAME ${name} AUTOMOC ${ARG_AUTOMOC}
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
        INSTALL_RPATH "$ORIGIN")

    install(TARGETS ${target} EXPORT QelTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
    file(RELATIVE_PATH library_folder "${QEL_INCLUDE_DIR}" "${CMAKE_CURRENT_SOURCE_DIR}")
    foreach(header IN LISTS ARG_HEADERS)
        get_filename_component(folder "${header}" DIRECTORY)
        install(FILES "${header}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${library_folder}/${folder}"
            COMPONENT development)
    endforeach()
endfunction()

# The CMake package and the pkg-config files, for find_package(Qel) and pkg-config --cflags --libs QelGraph.
function(qel_install_package)
    include(CMakePackageConfigHelpers)
    set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/Qel")
    configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/QelConfig.cmake.in"
        "${CMAKE_CURRENT_BINARY_DIR}/QelConfig.cmake" INSTALL_DESTINATION "${package_dir}")
    write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/QelConfigVersion.cmake"
        COMPATIBILITY SameMinorVersion)
    install(FILES "${CMAKE_CURRENT_BINARY_DIR}/QelConfig.cmake" "${CMAKE_CURRENT_BINARY_DIR}/QelConfigVersion.cmake"
        DESTINATION "${package_dir}" COMPONENT development)
    install(EXPORT QelTargets NAMESPACE Qel:: DESTINATION "${package_dir}" COMPONENT development)

    # Relative, so that cmake --install --prefix works.
    file(RELATIVE_PATH QEL_PC_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
    set(requires_Core "Qt6Core Qt6Gui")
    set(requires_GL "QelCore Qt6Core Qt6Gui epoxy")
    set(requires_Model "QelGL")
    set(requires_RenderPasses "QelModel")
    set(requires_Graph "QelRenderPasses")
    foreach(name Core GL Model RenderPasses Graph)
        set(QEL_PC_NAME ${name})
        set(QEL_PC_REQUIRES "${requires_${name}}")
        configure_file("${PROJECT_SOURCE_DIR}/cmake/Qel.pc.in" "${CMAKE_CURRENT_BINARY_DIR}/Qel${name}.pc" @ONLY)
        install(FILES "${CMAKE_CURRENT_BINARY_DIR}/Qel${name}.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
            COMPONENT development)
    endforeach()
    # In the layout of the source tree, so that the links between documents hold.
    install(FILES "${PROJECT_SOURCE_DIR}/LICENSE" "${PROJECT_SOURCE_DIR}/README.md" "${PROJECT_SOURCE_DIR}/CHANGELOG.md"
        DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT documentation)
    install(DIRECTORY "${PROJECT_SOURCE_DIR}/docs" "${PROJECT_SOURCE_DIR}/examples"
        DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT documentation PATTERN .gitattributes EXCLUDE)
endfunction()
