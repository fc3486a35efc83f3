# ql_add_module(NAME SOURCES ... [DEPS ...])
#   One static library per module; the repository root is the include root, so headers are
#   included as "Module/Header.h".
function(ql_add_module name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC "${PROJECT_SOURCE_DIR}" "${PROJECT_BINARY_DIR}")
  target_link_libraries(${name} PUBLIC ql_build_flags ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
endfunction()

# ql_add_gtest(NAME SOURCES ... DEPS ... [LABELS unit|integration|system] [TIMEOUT s])
#   A GoogleTest executable whose cases become individual CTest tests. A case that calls
#   GTEST_SKIP() is reported by CTest as skipped, with its reason in the output.
function(ql_add_gtest name)
  if(NOT QL_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  if(NOT ARG_LABELS)
    set(ARG_LABELS unit)
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ql_build_flags ${ARG_DEPS} GTest::gmock GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE
    QL_TEST_SOURCE_DIR="${CMAKE_CURRENT_SOURCE_DIR}"
    QL_BINARY_DIR="${PROJECT_BINARY_DIR}")
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    PROPERTIES
      LABELS "${ARG_LABELS}"
      TIMEOUT ${ARG_TIMEOUT}
      SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]")
endfunction()

if(QL_BUILD_TESTS)
  enable_testing()
  include(GoogleTest)
endif()

# ql_glob_sources(VAR DIR)
#   The .cpp files of a module folder (not its tests), keeping *_linux.cpp on Linux and
#   *_darwin.cpp / *_darwin.mm on Apple platforms only. Subfolders are included unless they
#   have a CMakeLists.txt of their own (tests/, or a module of their own).
function(ql_glob_sources var dir)
  file(GLOB_RECURSE all CONFIGURE_DEPENDS "${dir}/*.cpp")
  if(APPLE)
    file(GLOB_RECURSE mm CONFIGURE_DEPENDS "${dir}/*_darwin.mm")
    list(APPEND all ${mm})
  endif()
  set(kept)
  foreach(f IN LISTS all)
    # Capability subfolders belong to the module; their tests/ folders do not.
    file(RELATIVE_PATH rel "${dir}" "${f}")
    if(rel MATCHES "(^|/)tests/")
      continue()
    endif()
    # A subfolder with its own CMakeLists.txt is a module of its own that builds its files.
    get_filename_component(reldir "${rel}" DIRECTORY)
    set(own_module FALSE)
    while(reldir)
      if(EXISTS "${dir}/${reldir}/CMakeLists.txt")
        set(own_module TRUE)
        break()
      endif()
      get_filename_component(reldir "${reldir}" DIRECTORY)
    endwhile()
    if(own_module)
      continue()
    endif()
    get_filename_component(n "${f}" NAME_WE)
    if(n MATCHES "_darwin$" AND NOT APPLE)
      continue()
    endif()
    if(n MATCHES "_linux$" AND APPLE)
      continue()
    endif()
    list(APPEND kept "${f}")
  endforeach()
  set(${var} ${kept} PARENT_SCOPE)
endfunction()
