# The few shapes of target that this project has.

# Others' headers, which nearly every file includes and which take most of a build. They are parsed once for
# ruvod_common, and that serves everything that has the same options. Each file still includes what it uses: the fuzz
# preset does without.
set(RUVOD_STANDARD_HEADERS <algorithm> <array> <atomic> <chrono> <functional> <map> <memory> <mutex> <optional>
    <string> <variant> <vector>)
if(WIN32)
    list(APPEND RUVOD_STANDARD_HEADERS "${PROJECT_SOURCE_DIR}/src/common/winsock_headers.h")
endif()
set(RUVOD_QT_HEADERS <QCoreApplication> <QJsonObject> <QString> <QStringList>)

# A static library of one folder: ruvod_library(NAME SOURCES … LINK …). Includes are written from src/ ("ipc/frame.h").
function(ruvod_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINK")
    add_library(${name} STATIC ${arg_SOURCES})
    target_include_directories(${name} PUBLIC "${PROJECT_SOURCE_DIR}/src" "${PROJECT_BINARY_DIR}/generated")
    target_link_libraries(${name} PUBLIC ${arg_LINK} PRIVATE ruvod_options)
    if(name STREQUAL ruvod_common)
        target_precompile_headers(${name} PRIVATE ${RUVOD_STANDARD_HEADERS} ${RUVOD_QT_HEADERS})
    else()
        target_precompile_headers(${name} REUSE_FROM ruvod_common)
    endif()
endfunction()

# Gives an executable a version resource (and ruvod's manifest) that follow the project's version.
# ruvod_version_resource(TARGET DESCRIPTION)
function(ruvod_version_resource target description)
    if(NOT WIN32)
        return()
    endif()
    set(RESOURCE_DESCRIPTION "${description}")
    set(RESOURCE_NAME "${target}")
    configure_file("${PROJECT_SOURCE_DIR}/cmake/version.rc.in" "${CMAKE_CURRENT_BINARY_DIR}/${target}.rc" @ONLY)
    target_sources(${target} PRIVATE "${CMAKE_CURRENT_BINARY_DIR}/${target}.rc")
    set_property(SOURCE "${CMAKE_CURRENT_BINARY_DIR}/${target}.rc" APPEND PROPERTY OBJECT_DEPENDS
        "${PROJECT_SOURCE_DIR}/cmake/ruvod.manifest")
endfunction()

# Makes Windows look for the DLLs that an executable imports in System32 only. One of its sources has to be
# src/app/load_configuration.cpp. ruvod_load_from_system32(TARGET)
function(ruvod_load_from_system32 target)
    if(NOT WIN32)
        return()
    endif()
    # Nothing refers to it, and the linker leaves such objects out.
    target_link_options(${target} PRIVATE -Wl,--undefined=ruvoLoadConfiguration)
    set(script "${PROJECT_SOURCE_DIR}/cmake/point_to_load_configuration.py")
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND "${script}" "${CMAKE_NM}" "$<TARGET_FILE:${target}>" VERBATIM)
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${script}")
endfunction()
