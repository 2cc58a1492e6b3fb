# Compile settings shared by every target, and the functions that declare a room of the house and its tests.

add_library(sorvane_settings INTERFACE)
target_compile_options(sorvane_settings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
                       -Wnon-virtual-dtor -Woverloaded-virtual -Werror -fno-omit-frame-pointer)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(sorvane_settings INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()
if(SORVANE_SANITIZE)
  target_compile_options(sorvane_settings INTERFACE -fsanitize=${SORVANE_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(sorvane_settings INTERFACE -fsanitize=${SORVANE_SANITIZE})
  # What the sanitizers look at hardest is the rooms. The tests and the programs' own sources are compiled once and run briefly:
  # without optimisation they take half the time to compile.
  set(SORVANE_UNOPTIMISED -O0)
elseif(CMAKE_BUILD_TYPE MATCHES "Rel")
  target_compile_options(sorvane_settings INTERFACE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
endif()
if(APPLE)
  target_compile_options(sorvane_settings INTERFACE $<$<COMPILE_LANGUAGE:OBJCXX>:-fobjc-arc>)
else()
  target_link_options(sorvane_settings INTERFACE -Wl,--as-needed -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()
find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

# The folder of this system's adapters.
if(APPLE)
  set(SORVANE_PLATFORM platform/macos)
else()
  set(SORVANE_PLATFORM platform/linux)
endif()

# room(NAME [FOLDER dir] [USES room...] [LIBS target...]): a static library of every source of src/<dir>, and, when there are
# any, one test program of tests/<name>/*_test.cpp.
function(room name)
  cmake_parse_arguments(ARG "" "FOLDER" "USES;LIBS" ${ARGN})
  if(NOT ARG_FOLDER)
    set(ARG_FOLDER ${name})
  endif()
  set(patterns ${CMAKE_CURRENT_SOURCE_DIR}/src/${ARG_FOLDER}/*.cpp)
  if(APPLE)
    list(APPEND patterns ${CMAKE_CURRENT_SOURCE_DIR}/src/${ARG_FOLDER}/*.mm)
  endif()
  file(GLOB sources CONFIGURE_DEPENDS ${patterns})
  # What base/system.h and base/open_descriptors.h declare stands with the adapters and is linked with base, which needs it.
  set(system_sources ${CMAKE_CURRENT_SOURCE_DIR}/src/${SORVANE_PLATFORM}/system.cpp
      ${CMAKE_CURRENT_SOURCE_DIR}/src/${SORVANE_PLATFORM}/open_descriptors.cpp)
  if(name STREQUAL base)
    list(APPEND sources ${system_sources})
  else()
    list(REMOVE_ITEM sources ${system_sources})
  endif()
  if(NOT sources)
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/src)
    target_link_libraries(${name} INTERFACE sorvane_settings ${ARG_USES} ${ARG_LIBS})
  else()
    add_library(${name} STATIC ${sources})
    set_target_properties(${name} PROPERTIES OUTPUT_NAME sorvane_${name})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC ${ARG_USES} PRIVATE sorvane_settings ${ARG_LIBS})
    # So that the fuzz targets and the tests link against the same build of the rooms.
    target_compile_options(${name} PRIVATE $<$<BOOL:${SORVANE_FUZZ}>:-fsanitize=fuzzer-no-link>)
  endif()
  set_property(GLOBAL APPEND PROPERTY SORVANE_ROOMS ${name})
endfunction()

# room_test(NAME USES target...): the test program of tests/<name>, with the doubles of tests/support.
function(room_test name)
  cmake_parse_arguments(ARG "" "" "USES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tests/${name}/*_test.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(${name}_test ${sources})
  target_link_libraries(${name}_test PRIVATE sorvane_settings test_support ${ARG_USES} GTest::gmock GTest::gtest_main)
  target_compile_options(${name}_test PRIVATE ${SORVANE_UNOPTIMISED})
  target_compile_definitions(${name}_test PRIVATE SORVANE_CORPORA="${CMAKE_CURRENT_SOURCE_DIR}/tests/corpora"
                             SORVANE_SOURCE="${CMAKE_CURRENT_SOURCE_DIR}" SORVANE_BUILD="${CMAKE_CURRENT_BINARY_DIR}")
  gtest_discover_tests(${name}_test DISCOVERY_MODE PRE_TEST PROPERTIES LABELS ${name} TIMEOUT 120)
endfunction()
