# What the macOS side is built with, and how it is checked where there is no macOS.

# The Keychain's service, the access group without the team's identifier, and the identifier of the bundle.
set(SORVANE_SERVICE "app.sorvane" CACHE STRING "Service of the items in the Keychain")
set(SORVANE_ACCESS_GROUP "app.sorvane" CACHE STRING "Access group of the items in the Keychain, without the team's identifier")
set(SORVANE_BUNDLE_IDENTIFIER "app.sorvane" CACHE STRING "Identifier of the application's bundle")
set(SORVANE_IDENTITY SORVANE_SERVICE="${SORVANE_SERVICE}" SORVANE_ACCESS_GROUP="${SORVANE_ACCESS_GROUP}"
    SORVANE_BUNDLE_IDENTIFIER="${SORVANE_BUNDLE_IDENTIFIER}")

set(SORVANE_TEAM_IDENTIFIER "" CACHE STRING "Identifier of the team that signs the macOS application")
set(SORVANE_SIGNING_IDENTITY "" CACHE STRING "Certificate that the macOS application is signed with; empty: it is not signed")
set(SORVANE_PROVISIONING_PROFILE "" CACHE FILEPATH "Profile that lets the signed application have its access group")
if(SORVANE_SIGNING_IDENTITY AND NOT SORVANE_TEAM_IDENTIFIER)
  message(FATAL_ERROR "SORVANE_SIGNING_IDENTITY needs SORVANE_TEAM_IDENTIFIER: macOS ends a program at its start whose "
                      "entitlements name no team.")
endif()

if(APPLE)
  enable_language(OBJCXX)
  set(CMAKE_OBJCXX_STANDARD 20)
  set(SORVANE_FRAMEWORKS)
  foreach(framework AppKit CoreFoundation CoreGraphics Foundation IOKit LocalAuthentication Security UserNotifications)
    list(APPEND SORVANE_FRAMEWORKS "-framework ${framework}")
  endforeach()
endif()

# apple_sign(TARGET PLACE [word...]): signs what is in PLACE when TARGET is built, with the hardened run-time, under which nobody
# may read the program's memory or load code into it.
function(apple_sign target place)
  if(SORVANE_SIGNING_IDENTITY)
    add_custom_command(TARGET ${target} POST_BUILD COMMAND codesign --force --options runtime --timestamp ${ARGN}
                       --sign ${SORVANE_SIGNING_IDENTITY} ${place} VERBATIM)
  endif()
endfunction()

# apple_bundle(TARGET): makes the application a bundle, which the system tells apart from others by its identifier, and signs it.
function(apple_bundle target)
  set(source ${CMAKE_CURRENT_SOURCE_DIR}/packaging/macos)
  set(made ${CMAKE_CURRENT_BINARY_DIR}/macos)
  configure_file(${source}/Info.plist.in ${made}/Info.plist @ONLY)
  configure_file(${source}/sorvane.entitlements.in ${made}/sorvane.entitlements @ONLY)
  set_target_properties(${target} PROPERTIES MACOSX_BUNDLE TRUE MACOSX_BUNDLE_INFO_PLIST ${made}/Info.plist)
  if(SORVANE_PROVISIONING_PROFILE)
    # Before the signature, which covers it.
    add_custom_command(TARGET ${target} POST_BUILD COMMAND ${CMAKE_COMMAND} -E copy ${SORVANE_PROVISIONING_PROFILE}
                       $<TARGET_BUNDLE_CONTENT_DIR:${target}>/embedded.provisionprofile VERBATIM)
  endif()
  apple_sign(${target} $<TARGET_BUNDLE_DIR:${target}> --entitlements ${made}/sorvane.entitlements)
endfunction()

# apple_tests(): what can be run on a Mac, the Keychain itself among it.
function(apple_tests)
  foreach(name base crypto phone)
    room_test(${name} USES platform ${name} crypto base)
  endforeach()
  room_test(vault USES platform vault crypto base)
  room_test(approver USES platform approver phone crypto base)
  room_test(clients USES clients vault crypto base)
  add_executable(keychain_test ${CMAKE_CURRENT_SOURCE_DIR}/tests/apple/mac/keychain_test.cpp)
  target_link_libraries(keychain_test PRIVATE sorvane_settings test_support platform vault base GTest::gtest_main)
  add_test(NAME platform.keychain COMMAND keychain_test)
  set_tests_properties(platform.keychain PROPERTIES LABELS platform TIMEOUT 300)
  add_executable(services_test ${CMAKE_CURRENT_SOURCE_DIR}/tests/apple/mac/services_test.cpp)
  target_link_libraries(services_test PRIVATE sorvane_settings platform base GTest::gtest_main)
  add_test(NAME platform.services COMMAND services_test)
  set_tests_properties(platform.services PROPERTIES LABELS platform TIMEOUT 120)
endfunction()

# apple_checks(): every file of src/platform/macos checked by clang, and those that need C interfaces only run against a
# stand-in for the Keychain, on a system that is not macOS.
function(apple_checks)
  set(check ${CMAKE_CURRENT_SOURCE_DIR}/scripts/checks/macos)
  list(TRANSFORM SORVANE_IDENTITY PREPEND -D OUTPUT_VARIABLE definitions)
  add_custom_target(check_macos COMMAND ${check} ${definitions} USES_TERMINAL VERBATIM)
  add_test(NAME platform.macos_compiles COMMAND ${check} ${definitions})
  set_tests_properties(platform.macos_compiles PROPERTIES LABELS platform TIMEOUT 600 SKIP_RETURN_CODE 77)

  add_test(NAME platform.macos_configures COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/scripts/checks/macos_build)
  set_tests_properties(platform.macos_configures PROPERTIES LABELS platform TIMEOUT 300 SKIP_RETURN_CODE 77)
  # That the check sees what it is there to see: this file has three faults.
  add_test(NAME platform.macos_faults_are_found COMMAND ${check} ${CMAKE_CURRENT_SOURCE_DIR}/tests/apple/faulty.mm)
  set_tests_properties(platform.macos_faults_are_found PROPERTIES LABELS platform PASS_REGULAR_EXPRESSION "3 errors generated"
                       SKIP_REGULAR_EXPRESSION "macos: skipped")

  set(portable ${CMAKE_CURRENT_SOURCE_DIR}/scripts/checks/portable)
  add_test(NAME platform.nothing_of_linux_outside COMMAND ${portable})
  # This file has four such uses, and four that are none.
  add_test(NAME platform.uses_of_linux_are_found COMMAND ${portable} ${CMAKE_CURRENT_SOURCE_DIR}/tests/apple/unportable.cpp)
  set_tests_properties(platform.nothing_of_linux_outside PROPERTIES LABELS platform)
  set_tests_properties(platform.uses_of_linux_are_found PROPERTIES LABELS platform
                       PASS_REGULAR_EXPRESSION "portable: 1 files, 4 uses of what only Linux has")

  room_test(apple PREFIX "macos." USES agent proxy unlock vault crypto base)
  set(macos ${CMAKE_CURRENT_SOURCE_DIR}/src/platform/macos)
  file(GLOB fakes CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tests/apple/fake/*.cpp)
  # One a line: those that need C interfaces only.
  foreach(source
      access_group
      bonjour_announcer
      bonjour_browser
      bonjour_text
      clipboard_text
      core_foundation
      descendants
      hangup
      installed_program
      keychain_domains
      keychain_secret_store
      main_loop
      managed_settings
      notice_gate
      owner_access_control
      owner_check_rules
      owner_question
      peer_owner
      process_host
      process_record
      process_tables
      process_watch
      screen_notices
      session_state
      session_tracker
      sleep_notices
      supervisor)
    target_sources(apple_test PRIVATE ${macos}/${source}.cpp)
  endforeach()
  target_sources(apple_test PRIVATE ${fakes})
  target_compile_definitions(apple_test PRIVATE ${SORVANE_IDENTITY})
  # The host of commands passes the suite of those who start them.
  target_sources(apple_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src/platform/shared/command_channel.cpp
                 ${CMAKE_CURRENT_SOURCE_DIR}/src/platform/shared/forked_host.cpp
                 ${CMAKE_CURRENT_SOURCE_DIR}/tests/agent/command_runner_test.cpp)
  target_include_directories(apple_test SYSTEM PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/tests/apple/posix
                             ${CMAKE_CURRENT_SOURCE_DIR}/tests/apple/frameworks)
  apple_objective_checks()
endfunction()

# apple_objective_checks(): the files that take Objective-C, run against classes of our own with the run-time that comes with
# clang. It has no ARC, so that nothing is given back; that the files compile with ARC is checked above.
function(apple_objective_checks)
  find_program(SORVANE_CLANG NAMES clang++ clang++-19 clang++-16 clang++-14)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libobjc.so OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
  # The objects have no code of a sanitizer in them, which the thread sanitizer takes for races.
  if(NOT SORVANE_CLANG OR NOT EXISTS "${runtime}" OR SORVANE_SANITIZE)
    add_test(NAME platform.macos_objective_runs COMMAND ${CMAKE_COMMAND} -E echo "skipped: no clang, no libobjc, or a sanitizer")
    set_tests_properties(platform.macos_objective_runs PROPERTIES LABELS platform SKIP_REGULAR_EXPRESSION skipped)
    return()
  endif()
  set(root ${CMAKE_CURRENT_SOURCE_DIR})
  foreach(source
      src/platform/macos/login_session
      src/platform/macos/owner_check
      src/platform/macos/owner_hardware
      tests/apple/objc/fake
      tests/apple/objc/owner_and_session_test)
    get_filename_component(name ${source} NAME)
    set(object ${CMAKE_CURRENT_BINARY_DIR}/objective_${name}.o)
    add_custom_command(
      OUTPUT ${object} DEPENDS ${root}/${source}.mm DEPFILE ${object}.d VERBATIM COMMENT "Building Objective-C++ object ${name}.o"
      COMMAND ${SORVANE_CLANG} -x objective-c++ -std=c++20 -g1 -fPIE -fblocks -fobjc-runtime=gcc -fno-objc-arc -I${root}/src -I${root}/tests
              -isystem ${root}/tests/apple/posix -isystem ${root}/tests/apple/frameworks -MD -MF ${object}.d -MT ${object}
              -c ${root}/${source}.mm -o ${object})
    target_sources(apple_test PRIVATE ${object})
  endforeach()
  target_link_libraries(apple_test PRIVATE ${runtime})
endfunction()
