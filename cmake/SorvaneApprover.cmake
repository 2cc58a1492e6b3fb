# The program of the second device stands on the base and the crypto alone; what its tests call is a library of it without `main`.
# With SORVANE_APPROVER_ONLY it is all that is built.
file(GLOB approver_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/approver/*.cpp)
list(REMOVE_ITEM approver_sources ${CMAKE_CURRENT_SOURCE_DIR}/src/approver/main.cpp)
add_library(approver STATIC ${approver_sources})
target_include_directories(approver PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/src)
target_link_libraries(approver PUBLIC base crypto PRIVATE sorvane_settings nlohmann_json::nlohmann_json)
target_compile_options(approver PRIVATE $<$<BOOL:${SORVANE_FUZZ}>:-fsanitize=fuzzer-no-link>)

add_executable(sorvane-approver ${CMAKE_CURRENT_SOURCE_DIR}/src/approver/main.cpp)
target_compile_definitions(sorvane-approver PRIVATE SORVANE_VERSION="${PROJECT_VERSION}")
target_link_libraries(sorvane-approver PRIVATE sorvane_settings approver CLI11::CLI11)
# Looking for the computer in the local network takes the library of the system bus.
if(SORVANE_APPROVER_ONLY)
  target_sources(sorvane-approver PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src/platform/absent/adapters_approver.cpp)
else()
  target_link_libraries(sorvane-approver PRIVATE platform)
endif()
