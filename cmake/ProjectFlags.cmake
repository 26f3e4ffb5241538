# Warnings, sanitizers and hardening travel on one INTERFACE target, so that a folder cannot forget
# them and generated code can leave them out.
add_library(project_flags INTERFACE)

target_compile_options(project_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
    -Woverloaded-virtual -Wformat=2 -Wimplicit-fallthrough -fno-omit-frame-pointer)
if(ORRISD_WERROR)
    target_compile_options(project_flags INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # When optimising, this version takes every "text" + std::string() for overlapping memory.
    target_compile_options(project_flags INTERFACE
        $<$<CONFIG:Release,RelWithDebInfo>:-Wno-restrict>)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(project_flags INTERFACE -Wthread-safety)
endif()

# Log records and exceptions name the source file without its folder.
target_compile_options(project_flags INTERFACE
    -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)

if(ORRISD_SANITIZE)
    add_compile_options(-fsanitize=${ORRISD_SANITIZE} -fno-sanitize-recover=all)
    # The check of an object's type opens a pipe to learn whether memory can be read, and takes a
    # lack of descriptors, which tests provoke, for a wrong object.
    add_compile_options(-fno-sanitize=vptr)
    add_link_options(-fsanitize=${ORRISD_SANITIZE})
else()
    target_compile_options(project_flags INTERFACE -fstack-protector-strong)
    target_compile_definitions(project_flags INTERFACE
        $<$<CONFIG:Release,RelWithDebInfo>:_FORTIFY_SOURCE=2>)
    add_link_options(-Wl,-z,relro,-z,now)
endif()

# A fuzzer learns from what the libraries under it execute, so they are instrumented as well.
if(ORRISD_FUZZERS)
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()

find_package(Threads REQUIRED)
target_link_libraries(project_flags INTERFACE Threads::Threads)
