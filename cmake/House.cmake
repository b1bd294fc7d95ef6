# How libraries, commands, tests, benchmarks and fuzz targets are declared here. Each function
# takes file names relative to the folder that calls it; lists are written out, and the test
# `listed_files` fails when a file of the tree is in none.

include(CheckPIESupported)
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)
include(GoogleTest)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
check_pie_supported(LANGUAGES CXX)

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
# Relative, so that a build tree can be moved and no path of the builder is in a binary.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

find_program(HOUSE_CCACHE ccache)
if(HOUSE_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${HOUSE_CCACHE})
endif()

# Sanitizers come in through CMAKE_CXX_FLAGS, because everything linked together must agree.
set(HOUSE_SANITIZED OFF)
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=")
  set(HOUSE_SANITIZED ON)
endif()

# Fuzz targets are guided by what the libraries' code reaches.
set(HOUSE_INSTRUMENT "")
if(HOUSE_FUZZ)
  set(HOUSE_INSTRUMENT -fsanitize=fuzzer-no-link)
endif()

set(HOUSE_WARNINGS
    -Wall -Wextra -Wpedantic -Wimplicit-fallthrough -Wnon-virtual-dtor -Woverloaded-virtual
    -Wundef -Wvla)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND HOUSE_WARNINGS -Wshadow=local -Wsuggest-override)
  if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # Fires inside std::string's own operator+ when it is inlined.
    list(APPEND HOUSE_WARNINGS -Wno-restrict)
  endif()
else()
  list(APPEND HOUSE_WARNINGS -Wshadow -Winconsistent-missing-override)
endif()

# What a user runs: commands and the type libraries that they load by name.
add_custom_target(commands)
add_custom_target(libraries)
add_custom_target(benchmarks)
# The test programs that have suites for the thread sanitizer.
add_custom_target(thread_tests)

set_property(GLOBAL PROPERTY HOUSE_LIBRARIES "")
set_property(GLOBAL PROPERTY HOUSE_HEADERS "")

function(house_flags target)
  target_compile_features(${target} PRIVATE cxx_std_20)
  target_compile_options(${target} PRIVATE ${HOUSE_WARNINGS}
                         -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
  set_target_properties(${target} PROPERTIES
                        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# Writes the list of what a library shows. Visibility attributes decide within the library's
# own namespaces; the list adds that weak copies of standard-library functions stay inside, so
# that a program never binds to the copy that one of our libraries happens to carry.
function(house_version_script output namespaces sources)
  set(shown "")
  foreach(namespace IN LISTS namespaces)
    string(LENGTH ${namespace} length)
    set(scope ${length}${namespace})
    # Functions, objects, type information, tables, thunks, guards and function-local objects.
    string(APPEND shown "    _ZN${scope}*; _ZNK${scope}*; _ZNO${scope}*; _ZNR${scope}*; _ZNKR${scope}*;\n"
                        "    _ZT?N${scope}*; _ZTh*_N*${scope}*; _ZTv*_N*${scope}*; _ZTc*_N*${scope}*;\n"
                        "    _ZGVN${scope}*; _ZGVZN*${scope}*; _ZZN${scope}*; _ZZNK${scope}*;\n")
  endforeach()
  string(REPEAT "[0-9a-f]" 16 digest)
  foreach(source IN LISTS sources)
    cmake_path(GET source STEM module)
    string(APPEND shown "    ${module}_${digest};\n")
  endforeach()
  file(CONFIGURE OUTPUT ${output} @ONLY CONTENT "{\n  global:\n@shown@  local: *;\n};\n")
endfunction()

# Installs <module>.pc for builds that do not use CMake. The prefix is told from the file's own
# place, so that an installed tree can be moved.
function(house_pkg_config target module sources depends)
  set_property(GLOBAL PROPERTY HOUSE_PKG_CONFIG_${target} ${module})
  set(requires "")
  foreach(depend IN LISTS depends)
    get_property(needed GLOBAL PROPERTY HOUSE_PKG_CONFIG_${depend})
    list(APPEND requires ${needed})
  endforeach()
  list(JOIN requires ", " requires)
  set(libs "")
  if(sources)
    # Loading the library registers its types, even when no symbol of it is named.
    set(libs "-L\${libdir} -Wl,--no-as-needed -l${module}")
  endif()
  set(directory ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY
             ${CMAKE_INSTALL_PREFIX}/${directory} OUTPUT_VARIABLE up)
  set(file ${PROJECT_BINARY_DIR}/package/${module}.pc)
  file(CONFIGURE OUTPUT ${file} @ONLY CONTENT
"prefix=\${pcfiledir}/@up@
libdir=\${prefix}/@CMAKE_INSTALL_LIBDIR@
includedir=\${prefix}/@CMAKE_INSTALL_INCLUDEDIR@

Name: @module@
Description: @PROJECT_DESCRIPTION@: @module@
Version: @PROJECT_VERSION@
Requires: @requires@
Cflags: -I\${includedir}
Libs: @libs@
")
  install(FILES ${file} DESTINATION ${directory} COMPONENT dev)
endfunction()

# house_library(Kop [STATIC] SOURCES a.cpp ... HEADERS a.h ... [DEPENDS Lib ...]
#               [PRIVATE_DEPENDS target ...] [NAMESPACES Kop ...]
#               [ALIAS Kop::Kop] [OUTPUT_NAME Kop])
#
# A shared library with ABI number 0 whose include root is the source tree's root. Without
# SOURCES it is header-only. DEPENDS names libraries of ours, other targets also by full name.
# NAMESPACES are what it shows besides its own: by default Kop, for the templates that it
# instantiates over its own types. Objects are linked in the order of SOURCES.
function(house_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "STATIC" "ALIAS;OUTPUT_NAME"
                        "SOURCES;HEADERS;DEPENDS;PRIVATE_DEPENDS;NAMESPACES")
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "house_library(${name}): unknown ${arg_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT arg_ALIAS)
    set(arg_ALIAS ${name}::${name})
  endif()
  if(NOT arg_OUTPUT_NAME)
    set(arg_OUTPUT_NAME ${name})
  endif()
  if(NOT arg_NAMESPACES)
    set(arg_NAMESPACES ${name} Kop)
    list(REMOVE_DUPLICATES arg_NAMESPACES)
  endif()

  set(scope PUBLIC)
  if(NOT arg_SOURCES)
    set(scope INTERFACE)
    add_library(${name} INTERFACE)
  elseif(arg_STATIC)
    add_library(${name} STATIC ${arg_SOURCES})
  else()
    add_library(${name} SHARED ${arg_SOURCES})
  endif()
  add_library(${arg_ALIAS} ALIAS ${name})
  string(REGEX MATCH "^(.*)::([^:]+)$" matched ${arg_ALIAS})
  set(package ${CMAKE_MATCH_1})
  set_target_properties(${name} PROPERTIES EXPORT_NAME ${CMAKE_MATCH_2})

  target_compile_features(${name} ${scope} cxx_std_20)
  target_sources(${name} ${scope} FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR}
                 FILES ${arg_HEADERS})
  target_include_directories(${name} ${scope} $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${name} ${scope} ${arg_DEPENDS})

  if(arg_SOURCES)
    house_flags(${name})
    target_compile_options(${name} PRIVATE ${HOUSE_INSTRUMENT})
    if(arg_STATIC AND HOUSE_SANITIZED AND HOUSE_TESTS)
      # Commands are mostly argument parsing and sockets, whose headers take long to optimise:
      # 12 s instead of 33 s for the worst source.
      target_compile_options(${name} PRIVATE -O0)
    endif()
    target_link_libraries(${name} PRIVATE ${arg_PRIVATE_DEPENDS})
    # Static initialisers run in link order and register modules: nothing may merge or
    # reorder the objects.
    set_target_properties(${name} PROPERTIES OUTPUT_NAME ${arg_OUTPUT_NAME}
                          INTERPROCEDURAL_OPTIMIZATION OFF UNITY_BUILD OFF)
  endif()
  if(arg_SOURCES AND NOT arg_STATIC)
    set_target_properties(${name} PROPERTIES SOVERSION 0 INSTALL_RPATH $ORIGIN)
    # A registered descriptor must outlive dlclose. Registration happens at load, so whoever
    # links the library must load it even when it names no symbol of it; some compilers drop
    # such a library by default.
    target_link_options(${name} PRIVATE -Wl,-z,nodelete INTERFACE -Wl,--no-as-needed)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      target_compile_options(${name} PRIVATE -fno-semantic-interposition)
    endif()
    if(NOT HOUSE_SANITIZED)
      # A sanitizer's runtime is in the executable, so its symbols are undefined here.
      set(script ${CMAKE_CURRENT_BINARY_DIR}/${name}.map)
      house_version_script(${script} "${arg_NAMESPACES}" "${arg_SOURCES}")
      target_link_options(${name} PRIVATE -Wl,-z,defs -Wl,--version-script=${script})
      set_target_properties(${name} PROPERTIES LINK_DEPENDS ${script})
    endif()
  endif()

  if(NOT arg_STATIC)
    install(TARGETS ${name} EXPORT ${name}Targets
            LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev
            FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
    install(EXPORT ${name}Targets NAMESPACE ${package}::
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/${PROJECT_NAME} COMPONENT dev)
    house_pkg_config(${name} ${arg_OUTPUT_NAME} "${arg_SOURCES}" "${arg_DEPENDS}")
    set_property(GLOBAL APPEND PROPERTY HOUSE_LIBRARIES ${name})
    add_dependencies(commands ${name})
    add_dependencies(libraries ${name})
  endif()
  foreach(header IN LISTS arg_HEADERS)
    house_header_alone(${header})
  endforeach()
endfunction()

# house_app(hiveld SOURCES main.cpp DEPENDS Hivel): a command, put into bin/.
function(house_app name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS")
  add_executable(${name} ${arg_SOURCES})
  house_flags(${name})
  target_link_libraries(${name} PRIVATE ${arg_DEPENDS})
  set_target_properties(${name} PROPERTIES
                        INSTALL_RPATH $ORIGIN/../${CMAKE_INSTALL_LIBDIR})
  install(TARGETS ${name} COMPONENT tools)
  add_dependencies(commands ${name})
endfunction()

# house_parses_arguments(CommandLine.cpp ...): sources of the calling folder that read arguments
# once. The parser is all headers: optimising it takes 22 s of a source instead of 14 s.
function(house_parses_arguments)
  if(HOUSE_SANITIZED AND HOUSE_TESTS)
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS -O0)
  elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS -O1)
  endif()
endfunction()

# house_example(name SOURCES name.cpp DEPENDS Tunnel): a program for readers, put into
# examples/. CTest runs it; it must end with status 0.
function(house_example name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS")
  set(target example_${name})
  add_executable(${target} ${arg_SOURCES})
  house_flags(${target})
  target_link_libraries(${target} PRIVATE ${arg_DEPENDS})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name}
                        RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/examples)
  if(HOUSE_TESTS)
    add_test(NAME example.${name} COMMAND ${target})
    set_tests_properties(example.${name} PROPERTIES TIMEOUT 60)
  endif()
endfunction()

# The flags that all test programs share.
function(house_test_flags name)
  house_flags(${name})
  # What is tested is in the libraries, but for templates. Optimising the tests themselves takes
  # most of a build: under the sanitizers 101 s instead of 24 s for the worst source, and 23 s
  # instead of 15 s with -O2 instead of -O1.
  if(HOUSE_SANITIZED)
    target_compile_options(${name} PRIVATE -O0)
  elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
    target_compile_options(${name} PRIVATE -O1)
  endif()
  target_compile_definitions(${name} PRIVATE HOUSE_SANITIZED=$<BOOL:${HOUSE_SANITIZED}>)
  target_link_libraries(${name} PRIVATE GTest::gmock GTest::gtest)
endfunction()

# house_test(Kop SOURCES FooTest.cpp ... [DEPENDS target ...] [RUNS command ...])
#
# One test program `kop_tests` for one library. RUNS names commands of ours that the tests
# start; they are built first. The tests see HOUSE_BIN_DIR, where commands and type libraries'
# neighbours are, and HOUSE_SOURCE_DIR. A suite with `Threads` in its name gets the CTest label
# `threads` and runs under the thread sanitizer as well.
function(house_test library)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS;RUNS")
  string(TOLOWER ${library} lower)
  set(name ${lower}_tests)
  add_executable(${name} ${arg_SOURCES})
  house_test_flags(${name})
  if(TARGET tests_precompiled)
    target_precompile_headers(${name} REUSE_FROM tests_precompiled)
  endif()
  target_link_libraries(${name} PRIVATE ${library} ${arg_DEPENDS} GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_definitions(${name} PRIVATE
                             HOUSE_BIN_DIR="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}"
                             HOUSE_LIB_DIR="${CMAKE_LIBRARY_OUTPUT_DIRECTORY}"
                             HOUSE_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  set_target_properties(${name} PROPERTIES
                        RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests)
  if(arg_RUNS)
    add_dependencies(${name} ${arg_RUNS})
  endif()
  foreach(source IN LISTS arg_SOURCES)
    cmake_path(ABSOLUTE_PATH source)
    file(STRINGS ${source} suites REGEX "^(TYPED_)?TEST(_F|_P)?\\([A-Za-z]*Threads")
    if(suites)
      add_dependencies(thread_tests ${name})
    endif()
  endforeach()
  gtest_discover_tests(${name} TEST_PREFIX ${library}. DISCOVERY_MODE PRE_TEST
                       DISCOVERY_TIMEOUT 60 TEST_FILTER "-*Threads*.*"
                       PROPERTIES TIMEOUT 120)
  gtest_discover_tests(${name} TEST_PREFIX ${library}. DISCOVERY_MODE PRE_TEST
                       DISCOVERY_TIMEOUT 60 TEST_FILTER "*Threads*.*"
                       PROPERTIES TIMEOUT 120 LABELS threads)
endfunction()

# house_bench(Kop SOURCES FooBench.cpp ... [DEPENDS target ...] [LARGE])
#
# One benchmark program `kop_bench` for one library, put into bench/. CTest runs every
# benchmark of it for one iteration, so that none rots; of those with several sizes not the
# largest, unless the program is LARGE: has no others.
function(house_bench library)
  cmake_parse_arguments(PARSE_ARGV 1 arg "LARGE" "" "SOURCES;DEPENDS")
  string(TOLOWER ${library} lower)
  set(name ${lower}_bench)
  add_executable(${name} ${arg_SOURCES})
  house_flags(${name})
  target_link_libraries(${name} PRIVATE ${library} ${arg_DEPENDS} benchmark::benchmark
                        benchmark::benchmark_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  set_target_properties(${name} PROPERTIES
                        RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bench)
  add_dependencies(benchmarks ${name})
  if(HOUSE_TESTS)
    set(sizes "-/(500000|1000000)(/|$)")
    if(arg_LARGE)
      set(sizes .)
    endif()
    add_test(NAME bench.${library}
             COMMAND ${name} --benchmark_min_time=1e-9 --benchmark_filter=${sizes})
    set_tests_properties(bench.${library} PROPERTIES LABELS bench TIMEOUT 300)
  endif()
endfunction()

# house_fuzzer(kop_text SOURCES KopText.cpp DEPENDS Kop)
#
# One libFuzzer target with its stored inputs in fuzz/corpus/<name>. CTest runs it for a
# bounded time; inputs it finds and inputs it dies of go to the build tree, never to the corpus.
function(house_fuzzer name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS")
  set(corpus ${PROJECT_SOURCE_DIR}/fuzz/corpus/${name})
  if(NOT IS_DIRECTORY ${corpus})
    message(FATAL_ERROR "house_fuzzer(${name}): no inputs in ${corpus}")
  endif()
  set(target fuzz_${name})
  add_executable(${target} ${arg_SOURCES})
  house_flags(${target})
  target_link_libraries(${target} PRIVATE ${arg_DEPENDS})
  target_link_options(${target} PRIVATE -fsanitize=fuzzer)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
  set_target_properties(${target} PROPERTIES
                        RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/fuzz)
  set(found ${CMAKE_CURRENT_BINARY_DIR}/found/${name})
  file(MAKE_DIRECTORY ${found})
  # The first directory is the one that is written to.
  add_test(NAME fuzz.${name}
           COMMAND ${target} -runs=20000 -max_total_time=5 -timeout=10 -rss_limit_mb=2048
                   -artifact_prefix=${found}- ${found} ${corpus})
  set_tests_properties(fuzz.${name} PROPERTIES LABELS fuzz TIMEOUT 120)
endfunction()

# Takes a header into the target `headers_alone`, unless the source of its name includes it
# first: then building the library compiles it by itself.
function(house_header_alone header)
  cmake_path(ABSOLUTE_PATH header)
  cmake_path(REPLACE_EXTENSION header .cpp OUTPUT_VARIABLE source)
  cmake_path(RELATIVE_PATH header BASE_DIRECTORY ${PROJECT_SOURCE_DIR})
  if(EXISTS ${source})
    file(STRINGS ${source} first REGEX "^#include " LIMIT_COUNT 1)
    if(first STREQUAL "#include \"${header}\"")
      return()
    endif()
  endif()
  set_property(GLOBAL APPEND PROPERTY HOUSE_HEADERS ${header})
endfunction()

# The target `headers_alone` compiles public headers by themselves, twice in a row.
function(house_headers_alone)
  get_property(headers GLOBAL PROPERTY HOUSE_HEADERS)
  get_property(libraries GLOBAL PROPERTY HOUSE_LIBRARIES)
  set(sources "")
  foreach(header IN LISTS headers)
    set(source ${PROJECT_BINARY_DIR}/headers_alone/${header}.cpp)
    file(CONFIGURE OUTPUT ${source}
         CONTENT "#include \"@header@\"\n#include \"@header@\"\n")
    list(APPEND sources ${source})
  endforeach()
  if(sources)
    add_library(headers_alone OBJECT EXCLUDE_FROM_ALL ${sources})
    house_flags(headers_alone)
    target_include_directories(headers_alone PRIVATE ${PROJECT_SOURCE_DIR})
    target_link_libraries(headers_alone PRIVATE ${libraries})
  endif()
endfunction()

# find_package(TunnelHivelTypes) brings every library with its own namespace.
function(house_install_package)
  get_property(libraries GLOBAL PROPERTY HOUSE_LIBRARIES)
  set(includes "")
  foreach(library IN LISTS libraries)
    string(APPEND includes
           "include(\${CMAKE_CURRENT_LIST_DIR}/${library}Targets.cmake)\n")
  endforeach()
  set(config ${PROJECT_BINARY_DIR}/package/${PROJECT_NAME}Config.cmake)
  file(CONFIGURE OUTPUT ${config} CONTENT "@includes@" @ONLY)
  set(version ${PROJECT_BINARY_DIR}/package/${PROJECT_NAME}ConfigVersion.cmake)
  write_basic_package_version_file(${version} COMPATIBILITY SameMinorVersion)
  install(FILES ${config} ${version}
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/${PROJECT_NAME} COMPONENT dev)
endfunction()

# The target `reference` builds the reference of the public headers and of the pages of doc/ into
# doc/html of the build tree. CTest builds it too: what Doxygen warns of is an error.
function(house_reference)
  if(HOUSE_TESTS)
    find_program(HOUSE_DOXYGEN doxygen REQUIRED)
  else()
    find_program(HOUSE_DOXYGEN doxygen)
  endif()
  if(NOT HOUSE_DOXYGEN)
    return()
  endif()
  get_property(headers GLOBAL PROPERTY HOUSE_HEADERS)
  file(GLOB pages ${PROJECT_SOURCE_DIR}/doc/*.md)
  set(REFERENCE_INPUT "")
  set(paths "")
  set(marks KOP_EXPORT)
  foreach(header IN LISTS headers)
    # Those of static libraries are not installed, and a mark of what is shown tells nothing.
    if(NOT header MATCHES "^apps/|/Export.h$")
      list(APPEND paths ${PROJECT_SOURCE_DIR}/${header})
    endif()
    if(header MATCHES "/Export.h$")
      file(STRINGS ${PROJECT_SOURCE_DIR}/${header} mark REGEX "#define [A-Z_]+_EXPORT")
      string(REGEX REPLACE "#define ([A-Z_]+).*" "\\1" mark "${mark}")
      list(APPEND marks ${mark})
    endif()
  endforeach()
  foreach(path IN LISTS pages paths)
    string(APPEND REFERENCE_INPUT " \"${path}\"")
  endforeach()
  list(TRANSFORM marks APPEND "=")
  list(JOIN marks " " REFERENCE_PREDEFINED)
  set(REFERENCE_OUTPUT ${PROJECT_BINARY_DIR}/doc)
  configure_file(${PROJECT_SOURCE_DIR}/doc/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
  file(MAKE_DIRECTORY ${REFERENCE_OUTPUT})
  set(build ${HOUSE_DOXYGEN} ${PROJECT_BINARY_DIR}/Doxyfile)
  add_custom_target(reference COMMAND ${build} VERBATIM)
  if(HOUSE_TESTS AND NOT HOUSE_SANITIZED)
    add_test(NAME reference COMMAND ${build})
    set_tests_properties(reference PROPERTIES TIMEOUT 300)
    add_test(NAME reference.comments
             COMMAND ${PROJECT_SOURCE_DIR}/doc/reference-filter --check ${paths})
  endif()
endfunction()

# Targets `abi_dump`, which describes what the libraries show in abi/*.abi of the build tree, and
# `abi_report`, which compares that with HOUSE_ABI_BASELINE: a directory of such files, by default
# those that were installed last (cmake --install BUILD --component abi).
function(house_abi)
  set(installed ${CMAKE_INSTALL_DATADIR}/${PROJECT_NAME}/abi)
  set(HOUSE_ABI_BASELINE ${CMAKE_INSTALL_PREFIX}/${installed} CACHE PATH
      "Descriptions of libraries that abi_report compares with")
  set(script ${PROJECT_SOURCE_DIR}/scripts/abi)
  set(output ${PROJECT_BINARY_DIR}/abi)
  add_custom_target(abi_dump COMMAND ${script} dump ${output} USES_TERMINAL VERBATIM)
  add_custom_target(abi_report COMMAND ${script} report ${HOUSE_ABI_BASELINE} ${output}
                    USES_TERMINAL VERBATIM)
  add_dependencies(abi_report abi_dump)
  install(DIRECTORY ${output}/ DESTINATION ${installed} COMPONENT abi EXCLUDE_FROM_ALL
          FILES_MATCHING PATTERN "*.abi" PATTERN "build" EXCLUDE)
endfunction()
