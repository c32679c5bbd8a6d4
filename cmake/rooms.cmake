# How every target is compiled, and what a room is: one library that links only the rooms it may use.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_program(CCACHE ccache)
if(CCACHE)
    set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

set(KESTREL_SANITIZE "" CACHE STRING "sanitizers to build with, as -fsanitize takes them")
option(KESTREL_WERROR "warnings are errors; the presets and CI say so" OFF)
option(KESTREL_FUZZ "build the fuzz targets (needs clang)" OFF)

add_library(kestrel_flags INTERFACE)
target_compile_features(kestrel_flags INTERFACE cxx_std_20)
target_include_directories(kestrel_flags INTERFACE ${PROJECT_SOURCE_DIR})
# -Wsign-conversion: a count or an index that came from outside changes its sign only where somebody wrote so.
# No contraction: the formulas round as they are written.
target_compile_options(kestrel_flags INTERFACE -Wall -Wextra -Wconversion -Wsign-conversion -Wformat=2 -ffp-contract=off -fvisibility=hidden)
if(KESTREL_WERROR)
    target_compile_options(kestrel_flags INTERFACE -Werror)
endif()
if(KESTREL_SANITIZE)
    target_compile_options(kestrel_flags INTERFACE -fsanitize=${KESTREL_SANITIZE} -fno-omit-frame-pointer
                           -fno-sanitize-recover=all)
    target_link_options(kestrel_flags INTERFACE -fsanitize=${KESTREL_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU") # instrumented, the standard library's own code looks so to it
        target_compile_options(kestrel_flags INTERFACE -Wno-maybe-uninitialized)
    endif()
endif()
if(KESTREL_FUZZ)
    target_compile_options(kestrel_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
target_link_libraries(kestrel_flags INTERFACE Threads::Threads)

# Loops over elements that a directory has as loops_plain.cpp, loops_avx2.cpp and loops_avx512.cpp, the same text for
# three kinds of processors: sets `out` to those that this machine's family can have.
function(kestrel_loops out)
    set(fast "$<$<NOT:$<CONFIG:Debug>>:-O3>")
    set(found loops_plain.cpp)
    set_source_files_properties(loops_plain.cpp PROPERTIES COMPILE_OPTIONS "${fast}")
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
        list(APPEND found loops_avx2.cpp loops_avx512.cpp)
        set_source_files_properties(loops_avx2.cpp PROPERTIES COMPILE_OPTIONS "${fast};-mavx2")
        set_source_files_properties(loops_avx512.cpp PROPERTIES COMPILE_OPTIONS
            "${fast};-mavx512f;-mavx512bw;-mavx512dq;-mavx512vl;-mprefer-vector-width=512")
    endif()
    set(${out} ${found} PARENT_SCOPE)
endfunction()

# kestrel_room(name SOURCES file... USES room... LIBRARIES library...)
function(kestrel_room name)
    cmake_parse_arguments(ROOM "" "" "SOURCES;USES;LIBRARIES" ${ARGN})
    add_library(kestrel_${name} STATIC ${ROOM_SOURCES})
    target_link_libraries(kestrel_${name} PUBLIC kestrel_flags)
    foreach(room ${ROOM_USES})
        target_link_libraries(kestrel_${name} PUBLIC kestrel_${room})
    endforeach()
    target_link_libraries(kestrel_${name} PRIVATE ${ROOM_LIBRARIES})
endfunction()
