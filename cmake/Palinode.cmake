# Compiler settings and the functions that every folder uses.

include(GNUInstallDirs)
include(GoogleTest OPTIONAL)
find_package(PkgConfig REQUIRED)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
# CMake's own choice, -O3, makes the programs larger.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_CXX_FLAGS_MINSIZEREL "-Oz -DNDEBUG")
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

# Where tests find the programs that they start. A machine that only emulates the target starts them
# by scripts of the same names, which scripts/cross writes.
set(PALINODE_RUN_DIR ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
if(CMAKE_CROSSCOMPILING_EMULATOR)
  set(PALINODE_RUN_DIR ${CMAKE_BINARY_DIR}/emulated)
endif()

# The programs know their files below /lumen. A package keeps them where Debian wants them, and the
# systemd unit binds these to /lumen.
if(PALINODE_PACKAGE)
  set(PALINODE_CONFIG_DIR /etc/lumen)
  set(PALINODE_ZSH_DIR ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
else()
  set(PALINODE_CONFIG_DIR /lumen/etc)
  set(PALINODE_ZSH_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
endif()

if(PALINODE_LINKER)
  add_link_options(-fuse-ld=${PALINODE_LINKER})
endif()

# No path of the machine that builds gets into the programs.
add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)

# What makes a memory error harder to use, where the target knows it: programs at a random address
# with their tables of addresses read-only from the start, marked targets of indirect jumps, a stack
# that cannot grow past its guard page, checked indexes of the C++ library. tests/support/elf.py shows
# which of it a program has.
include(CheckCXXCompilerFlag)
add_compile_options(-fPIE -fstack-protector-strong)
add_link_options(-pie LINKER:-z,relro LINKER:-z,now)
add_compile_definitions(_GLIBCXX_ASSERTIONS)
# clang takes what its target does not know, with a warning.
set(CMAKE_REQUIRED_FLAGS -Werror)
foreach(flag -fcf-protection -mbranch-protection=standard -fstack-clash-protection)
  string(MAKE_C_IDENTIFIER "PALINODE_HAS${flag}" known)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known})
    add_compile_options(${flag})
  endif()
endforeach()
unset(CMAKE_REQUIRED_FLAGS)

# Files longer than 2 GiB and times after 2038. The C library's functions then take other types; a
# library that hands such a type over, as c-ares does, must be built in the same way.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

add_library(palinode_warnings INTERFACE)
target_compile_options(palinode_warnings INTERFACE
  -Wall -Wextra -Wconversion -Wsign-conversion -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
  -Wold-style-cast)
# With the compilers of Debian 12 only: a newer compiler's warning must not keep a user from building.
if(PALINODE_WERROR AND
   ((CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13) OR
    (CMAKE_CXX_COMPILER_ID MATCHES "Clang" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 15)))
  target_compile_options(palinode_warnings INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # Wrong about "text" + string when it optimises (GCC bugs 105651, 105329).
  target_compile_options(palinode_warnings INTERFACE -Wno-restrict -Wno-stringop-overflow
                         -Wno-stringop-overread -Wno-array-bounds)
endif()
target_compile_definitions(palinode_warnings INTERFACE PALINODE_VERSION="${PROJECT_VERSION}")
if(CMAKE_BUILD_TYPE MATCHES "^(Release|MinSizeRel)$")
  # It needs an optimising compiler.
  target_compile_definitions(palinode_warnings INTERFACE _FORTIFY_SOURCE=2)
endif()

# What makes the programs smaller and costs no speed: what nothing uses stays out, and with link-time
# optimisation functions are inlined and left out across files. The objects have machine code beside
# what the link-time optimiser needs: for lld, which does not know GCC's, and for the tests, which
# link fast.
string(COMPARE EQUAL "${CMAKE_BUILD_TYPE}" MinSizeRel PALINODE_SMALL)
set(PALINODE_TRIMMED)
set(PALINODE_TRIM)
set(PALINODE_LINKED_FAST)
if(CMAKE_BUILD_TYPE MATCHES "^(Release|MinSizeRel)$")
  list(APPEND PALINODE_TRIMMED -ffunction-sections -fdata-sections -fvisibility=hidden
       -fvisibility-inlines-hidden)
  list(APPEND PALINODE_TRIM LINKER:--gc-sections)
endif()
if(PALINODE_LTO AND NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  message(STATUS "The programs are linked without link-time optimisation, which is GCC's here")
elseif(PALINODE_LTO)
  list(APPEND PALINODE_TRIMMED -flto=auto -ffat-lto-objects)
  list(APPEND PALINODE_TRIM -flto=auto)
  list(APPEND PALINODE_LINKED_FAST -fno-lto)
  # GCC's plugin would put functions into an archive's index that its machine code does not have.
  set(CMAKE_CXX_ARCHIVE_CREATE "<CMAKE_AR> --plugin /dev/null qc <TARGET> <LINK_FLAGS> <OBJECTS>")
  set(CMAKE_CXX_ARCHIVE_FINISH "<CMAKE_RANLIB> --plugin /dev/null <TARGET>")
  if(PALINODE_SMALL)
    # Slower to link; what stands in several files is found everywhere.
    list(APPEND PALINODE_TRIM -flto-partition=one)
  endif()
endif()
if(PALINODE_SMALL)
  # One bit for most addresses that the loader adjusts, not 24 bytes. It must know that: glibc does
  # since 2.36, musl since 1.2.4; and the linker, which does not for MIPS.
  set(CMAKE_REQUIRED_LINK_OPTIONS -pie LINKER:-z,pack-relative-relocs,--fatal-warnings)
  set(source "int n; int* volatile p = &n; int main() { return p != &n; }")
  if(PALINODE_CROSS_HOST MATCHES "-musl$")
    include(CheckCXXSourceCompiles)
    check_cxx_source_compiles("${source}" PALINODE_HAS_relr)
  elseif(NOT CMAKE_CROSSCOMPILING)
    include(CheckCXXSourceRuns)
    check_cxx_source_runs("${source}" PALINODE_HAS_relr)
  endif()
  unset(CMAKE_REQUIRED_LINK_OPTIONS)
  if(PALINODE_HAS_relr)
    list(APPEND PALINODE_TRIM LINKER:-z,pack-relative-relocs)
  endif()
endif()
if(PALINODE_CROSS_HOST STREQUAL "mips-linux-musl")
  # Files are laid out for the largest pages that the machine could have, 64 KiB, with gaps of that
  # size. Routers have 4 KiB, a few other MIPS machines 16.
  list(APPEND PALINODE_TRIM LINKER:-z,max-page-size=16384)
endif()
if(PALINODE_STATIC_CXX)
  list(APPEND PALINODE_TRIM -static-libstdc++ -static-libgcc)
endif()

if(PALINODE_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # What libFuzzer steers by; without a fuzzer in the program it does nothing.
    add_compile_options(-fsanitize=fuzzer-no-link)
  endif()
endif()

if(PALINODE_COVERAGE)
  # The counters lie in a mapped file, so that a process which is killed is counted as well; a
  # program that is run without $LLVM_PROFILE_FILE leaves no file.
  add_compile_options(-fprofile-instr-generate=/dev/null -fcoverage-mapping
                      "SHELL:-mllvm -runtime-counter-relocation")
  add_link_options(-fprofile-instr-generate)
endif()

if(PALINODE_TIDY)
  find_program(PALINODE_CLANG_TIDY clang-tidy REQUIRED)
  set(CMAKE_CXX_CLANG_TIDY ${PALINODE_CLANG_TIDY} --quiet --warnings-as-errors=*)
endif()

# No exceptions and no run-time types, except where a library needs both.
add_library(palinode_flags INTERFACE)
target_link_libraries(palinode_flags INTERFACE palinode_warnings)
target_compile_options(palinode_flags INTERFACE -fno-exceptions -fno-rtti)
if(PALINODE_SMALL)
  # Nothing is thrown, and no program has a second thread.
  target_compile_options(palinode_flags INTERFACE -fno-asynchronous-unwind-tables
                         -fno-threadsafe-statics)
  # A failed check of the C++ library tells its file and line. The names of the functions, with all
  # that templates add, are a tenth of a program.
  target_compile_options(palinode_flags INTERFACE "-D__PRETTY_FUNCTION__=\"\"")
endif()

# palinode_library(NAME SOURCES file... LINK library...)
# A folder's code as a static library; LINK is public, so that layers add up.
function(palinode_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE palinode_flags PUBLIC ${ARG_LINK})
endfunction()

# palinode_program(NAME SOURCES file... LINK library... DESTINATION folder [RESIDENT])
# A program that is installed; RESIDENT: it stays in memory, and throws no exceptions.
function(palinode_program name)
  cmake_parse_arguments(ARG "RESIDENT" "DESTINATION" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINK})
  if(ARG_RESIDENT AND PALINODE_STATIC_CXX)
    target_link_libraries(${name} PRIVATE no_exceptions)
  endif()
  if(ARG_RESIDENT OR PALINODE_SMALL)
    target_link_options(${name} PRIVATE ${PALINODE_TRIM})
  else()
    target_link_options(${name} PRIVATE ${PALINODE_LINKED_FAST})
  endif()
  install(TARGETS ${name} DESTINATION ${ARG_DESTINATION})
endfunction()

# What tests add: GCC lets a compiler cache serve sources that use precompiled headers.
add_library(palinode_test_flags INTERFACE)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(palinode_test_flags INTERFACE -fpch-preprocess)
endif()

# The tests that no emulator of programs can run, by name; the second list is of one for 64 bits.
set(needs_machine needs-machine.txt)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  list(APPEND needs_machine needs-machine-64.txt)
endif()
set(PALINODE_NEED_MACHINE)
foreach(list IN LISTS needs_machine)
  set(list ${CMAKE_SOURCE_DIR}/tests/${list})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list})
  file(STRINGS ${list} names REGEX "^[a-z]")
  list(APPEND PALINODE_NEED_MACHINE ${names})
endforeach()

# palinode_unit_test(NAME SOURCES file... LINK library... [NEEDS namespaces|root|machine...])
# One GoogleTest program; each of its tests is a test of its own in the run, with the label "unit".
# Tests that make namespaces, which root may do and a user in a namespace of users, are labelled
# "needs-namespaces" as well; those that need root of the machine "needs-root"; those in the lists
# tests/needs-machine*.txt, or all of a program that speaks to the kernel by netlink, "needs-machine".
# The target machine_tests builds all programs with tests that have such a label.
function(palinode_unit_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK;NEEDS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/unit)
  target_link_libraries(${name} PRIVATE palinode_flags palinode_test_flags test_service_number
                        ${ARG_LINK} GTest::gtest GTest::gtest_main)
  if(NOT PALINODE_TIDY)
    target_precompile_headers(${name} REUSE_FROM test_headers)
  endif()
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(${name} TEST_PREFIX "${name}." NO_PRETTY_VALUES DISCOVERY_TIMEOUT 60
                       TEST_LIST ${name}_tests PROPERTIES LABELS unit TIMEOUT 60)
  set(unemulated ${PALINODE_NEED_MACHINE})
  list(FILTER unemulated INCLUDE REGEX "^${name}[.]")
  if(ARG_NEEDS OR unemulated)
    set_property(GLOBAL APPEND PROPERTY PALINODE_MACHINE_TESTS ${name})
    set(labels unit)
    foreach(need IN LISTS ARG_NEEDS)
      list(APPEND labels needs-${need})
    endforeach()
    list(JOIN unemulated "|" regex)
    # gtest_discover_tests passes on no property that is a list.
    set(file ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake)
    file(WRITE ${file} "foreach(test IN LISTS ${name}_tests)
  set(labels \"${labels}\")
  if(test MATCHES \"^(${regex})$\")
    list(APPEND labels needs-machine)
  endif()
  set_tests_properties(\"\${test}\" PROPERTIES LABELS \"\${labels}\")
endforeach()
")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${file})
  endif()
endfunction()
