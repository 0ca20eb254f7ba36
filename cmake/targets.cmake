# How every target of the project is built: one set of warnings, one set of hardening flags, and the
# functions pm_library, pm_program, pm_unit_test and pm_fuzz_target.

include(${CMAKE_CURRENT_LIST_DIR}/rooms.cmake)

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)

add_library(pm_flags INTERFACE)
target_include_directories(pm_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_definitions(pm_flags INTERFACE _GNU_SOURCE)
target_compile_options(pm_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(pm_flags INTERFACE
                         "$<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety;-Wthread-safety-beta>")
  # What g++'s library calls in std::stable_sort is told to its user by newer versions; g++ itself
  # tells what this project's own code calls.
  target_compile_options(pm_flags INTERFACE -Wno-deprecated-declarations)
endif()

if(PM_SANITIZE)
  target_compile_options(pm_flags INTERFACE -fsanitize=${PM_SANITIZE} -fno-omit-frame-pointer -O1)
  # The compilers don't agree on how they say so themselves.
  target_compile_definitions(pm_flags INTERFACE PM_SANITIZED)
  target_link_options(pm_flags INTERFACE -fsanitize=${PM_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # A sanitizer's own code confuses this warning, for example within std::regex.
    target_compile_options(pm_flags INTERFACE -Wno-maybe-uninitialized)
  endif()
  if(PM_SANITIZE MATCHES "undefined")
    target_compile_options(pm_flags INTERFACE -fno-sanitize-recover=all)
  endif()
elseif(PM_FUZZ)
  target_compile_options(pm_flags INTERFACE -fsanitize=address,undefined,fuzzer-no-link
                                            -fno-sanitize-recover=all -O1)
  target_link_options(pm_flags INTERFACE -fsanitize=address,undefined)
elseif(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_options(pm_flags INTERFACE -fstack-protector-strong -fstack-clash-protection
                                            -D_FORTIFY_SOURCE=2 -D_GLIBCXX_ASSERTIONS)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    target_compile_options(pm_flags INTERFACE -mbranch-protection=standard)
  elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    target_compile_options(pm_flags INTERFACE -fcf-protection)
  endif()
endif()
# With the position independent code above, CMake links every program as a PIE.
check_pie_supported()
target_link_options(pm_flags INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)

# pm_library(NAME SOURCES... LINK targets...): a static library of one folder.
function(pm_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC pm_flags ${ARG_LINK})
  pm_in_room(${name})
endfunction()

# pm_program(NAME SOURCES... LINK targets...): a program in bin/ of the build folder.
function(pm_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE pm_flags ${ARG_LINK})
  target_compile_definitions(${name} PRIVATE PM_VERSION="${PROJECT_VERSION}")
  # A sanitizer's run time comes whole only this way, also for a program in C.
  set_target_properties(${name} PROPERTIES LINKER_LANGUAGE CXX)
  pm_in_room(${name})
endfunction()
