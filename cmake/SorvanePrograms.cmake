# The programs, the tests, the benchmarks and the fuzz targets.

file(GLOB app_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/app/*.cpp)
if(app_sources)
  add_executable(sorvaned ${app_sources})
  target_compile_options(sorvaned PRIVATE ${SORVANE_UNOPTIMISED})
  target_link_libraries(sorvaned PRIVATE sorvane_settings platform phone agent proxy clients unlock vault crypto base CLI11::CLI11
                        PkgConfig::qrencode)
  target_compile_definitions(sorvaned PRIVATE SORVANE_VERSION="${PROJECT_VERSION}")
  if(APPLE)
    apple_bundle(sorvaned)
  endif()
endif()

# The helper program starts once per command, and the dynamic linker would be most of its run time: it is linked statically and
# holds nothing but the base, the protocol, the masking and itself.
set(cli_adapters polkit_text_agent.cpp agent_helper.cpp bus_link.cpp bus_wire.cpp reason_text.cpp terminal_prompt.cpp)
file(GLOB cli_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/cli/*.cpp
     ${CMAKE_CURRENT_SOURCE_DIR}/src/agent/protocol_*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/src/agent/owner_protocol.cpp
     ${CMAKE_CURRENT_SOURCE_DIR}/src/agent/client.cpp
     ${CMAKE_CURRENT_SOURCE_DIR}/src/agent/masking.cpp ${CMAKE_CURRENT_SOURCE_DIR}/src/agent/needle*.cpp)
if(NOT APPLE)
  # The agent on the person's terminal, which gets along without the libraries of the other adapters.
  list(TRANSFORM cli_adapters PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/src/platform/linux/)
  list(APPEND cli_sources ${cli_adapters})
endif()
add_executable(sorvane ${cli_sources})
target_include_directories(sorvane PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
target_compile_options(sorvane PRIVATE ${SORVANE_UNOPTIMISED})
target_compile_definitions(sorvane PRIVATE SORVANE_VERSION="${PROJECT_VERSION}")
target_link_libraries(sorvane PRIVATE sorvane_settings base nlohmann_json::nlohmann_json CLI11::CLI11)
if(NOT APPLE AND NOT SORVANE_SANITIZE)
  target_link_options(sorvane PRIVATE -static)
endif()

if(SORVANE_TESTS)
  file(GLOB support_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tests/support/*.cpp)
  add_library(test_support STATIC ${support_sources})
  target_include_directories(test_support PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/tests ${CMAKE_CURRENT_SOURCE_DIR}/src)
  target_compile_options(test_support PRIVATE ${SORVANE_UNOPTIMISED})
  target_link_libraries(test_support PUBLIC nlohmann_json::nlohmann_json PkgConfig::libssl PkgConfig::libcrypto Threads::Threads
                        PRIVATE sorvane_settings base)
  if(APPLE)
    apple_tests()
  else()
    room_test(base USES platform base)
    room_test(crypto USES platform crypto base)
    room_test(vault USES platform vault crypto base)
    room_test(unlock USES platform unlock vault crypto base)
    room_test(proxy USES platform proxy vault crypto base Threads::Threads)
    room_test(agent USES platform agent proxy vault crypto base)
    room_test(phone USES platform phone crypto base)
    room_test(clients USES platform clients vault crypto base)
    # The other side of the link is the computer's own code: each is a check of the other.
    room_test(approver USES platform approver phone crypto base)
    room_test(platform USES platform phone agent proxy vault crypto base PkgConfig::sqlite3 PkgConfig::sdbus)
  endif()
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/tests/CMakeLists.txt)
    include(${CMAKE_CURRENT_SOURCE_DIR}/tests/CMakeLists.txt)
  endif()
endif()

if(SORVANE_BENCH AND EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/bench/CMakeLists.txt)
  add_subdirectory(bench)
endif()

if(SORVANE_FUZZ)
  add_custom_target(fuzzers)
  file(GLOB fuzz_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/fuzz/*_fuzz.cpp)
  if(APPLE)
    list(FILTER fuzz_sources EXCLUDE REGEX "bus_message")
  endif()
  foreach(source ${fuzz_sources})
    get_filename_component(target ${source} NAME_WE)
    add_executable(${target} EXCLUDE_FROM_ALL ${source})
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
    target_link_libraries(${target} PRIVATE sorvane_settings agent phone proxy clients unlock vault crypto base nlohmann_json::nlohmann_json)
    target_link_options(${target} PRIVATE -fsanitize=fuzzer)
    add_dependencies(fuzzers ${target})
  endforeach()
  target_link_libraries(approver_fuzz PRIVATE approver)
  # The helper program is no library; its decoder is compiled into the target.
  target_sources(mcp_line_fuzz PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src/cli/mcp_frame.cpp)
  # The same holds for the one adapter that reads bytes of a bus itself.
  if(TARGET bus_message_fuzz)
    target_sources(bus_message_fuzz PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src/platform/linux/bus_wire.cpp)
  endif()
endif()
