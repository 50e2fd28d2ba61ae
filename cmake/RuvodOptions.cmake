# What all of our own code is compiled with. Libraries of others (Qt, GoogleTest) do not link this.
add_library(ruvod_options INTERFACE)
target_compile_features(ruvod_options INTERFACE cxx_std_23)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

target_compile_options(ruvod_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Woverloaded-virtual
    -Wcast-align -Wimplicit-fallthrough -Wundef -Werror)
target_compile_definitions(ruvod_options INTERFACE QT_NO_CAST_TO_ASCII QT_NO_URL_CAST_FROM_STRING
    QT_DISABLE_DEPRECATED_BEFORE=0x060400
    # An index or an iterator beyond its container's end aborts.
    _GLIBCXX_ASSERTIONS)

if(WIN32)
    target_compile_definitions(ruvod_options INTERFACE
        UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0A00 WINVER=0x0A00)
    # What overruns a buffer ends the process instead of going on under the system's rights. The option while linking
    # brings the library that says so. Unoptimised code cannot be fortified, its headers leave that out by themselves.
    target_compile_options(ruvod_options INTERFACE -fstack-protector-strong)
    target_compile_definitions(ruvod_options INTERFACE _FORTIFY_SOURCE=2)
    add_link_options(-fstack-protector-strong)
    # A program of its own: nothing but Windows' own DLLs beside it.
    add_link_options(-static)
    enable_language(RC)
endif()

# Sanitizers cover the tests' own code and GoogleTest too, so that containers of both agree.
set(RUVOD_SANITIZE "" CACHE STRING "Value of -fsanitize= for everything, for example address,undefined")
if(RUVOD_SANITIZE)
    add_compile_options(-fsanitize=${RUVOD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${RUVOD_SANITIZE})
endif()
