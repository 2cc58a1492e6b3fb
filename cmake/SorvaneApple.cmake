# What the macOS side is built with, and how it is checked where there is no macOS.

# The Keychain's service, the access group without the team's identifier, and the identifier of the bundle.
set(SORVANE_SERVICE "app.sorvane" CACHE STRING "Service of the items in the Keychain")
set(SORVANE_ACCESS_GROUP "app.sorvane" CACHE STRING "Access group of the items in the Keychain, without the team's identifier")
set(SORVANE_BUNDLE_IDENTIFIER "app.sorvane" CACHE STRING "Identifier of the application's bundle")
set(SORVANE_IDENTITY SORVANE_SERVICE="${SORVANE_SERVICE}" SORVANE_ACCESS_GROUP="${SORVANE_ACCESS_GROUP}"
    SORVANE_BUNDLE_IDENTIFIER="${SORVANE_BUNDLE_IDENTIFIER}")

if(APPLE)
  enable_language(OBJCXX)
  set(CMAKE_OBJCXX_STANDARD 20)
  set(SORVANE_FRAMEWORKS)
  foreach(framework CoreFoundation Foundation Security)
    list(APPEND SORVANE_FRAMEWORKS "-framework ${framework}")
  endforeach()
endif()

# apple_checks(): every file of src/platform/macos checked by clang, and those that need C interfaces only run against a
# stand-in for the Keychain, on a system that is not macOS.
function(apple_checks)
  set(check ${CMAKE_CURRENT_SOURCE_DIR}/scripts/checks/macos)
  list(TRANSFORM SORVANE_IDENTITY PREPEND -D OUTPUT_VARIABLE definitions)
  add_custom_target(check_macos COMMAND ${check} ${definitions} USES_TERMINAL VERBATIM)
  add_test(NAME platform.macos_compiles COMMAND ${check} ${definitions})
  set_tests_properties(platform.macos_compiles PROPERTIES LABELS platform TIMEOUT 600 SKIP_RETURN_CODE 77)

  # That the check sees what it is there to see: this file has three faults.
  add_test(NAME platform.macos_faults_are_found COMMAND ${check} ${CMAKE_CURRENT_SOURCE_DIR}/tests/apple/faulty.mm)
  set_tests_properties(platform.macos_faults_are_found PROPERTIES LABELS platform PASS_REGULAR_EXPRESSION "3 errors generated"
                       SKIP_REGULAR_EXPRESSION "macos: skipped")

  room_test(apple USES vault crypto base)
  set(macos ${CMAKE_CURRENT_SOURCE_DIR}/src/platform/macos)
  file(GLOB fakes CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tests/apple/fake/*.cpp)
  target_sources(apple_test PRIVATE ${fakes} ${macos}/core_foundation.cpp ${macos}/access_group.cpp
                 ${macos}/keychain_secret_store.cpp)
  target_include_directories(apple_test SYSTEM PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/tests/apple/frameworks)
endfunction()
