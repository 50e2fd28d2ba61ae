# The few shapes of target that this project has.

# A static library of one folder: ruvod_library(NAME SOURCES … LINK …). Includes are written from src/ ("ipc/frame.h").
function(ruvod_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINK")
    add_library(${name} STATIC ${arg_SOURCES})
    target_include_directories(${name} PUBLIC "${PROJECT_SOURCE_DIR}/src" "${PROJECT_BINARY_DIR}/generated")
    target_link_libraries(${name} PUBLIC ${arg_LINK} PRIVATE ruvod_options)
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
