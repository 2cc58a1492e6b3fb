# What `cmake --install` puts where, and the .deb that CPack makes of it; the README shows both.
include(GNUInstallDirs)

if(TARGET sorvaned AND TARGET sorvane)
  install(TARGETS sorvaned sorvane sorvane-approver RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
          BUNDLE DESTINATION Applications)

  # The completions are what the program itself prints; they never ask the vault.
  set(completions ${CMAKE_CURRENT_BINARY_DIR}/completions)
  foreach(shell bash zsh fish)
    add_custom_command(OUTPUT ${completions}/${shell} COMMAND ${CMAKE_COMMAND} -E make_directory ${completions}
                       COMMAND sorvane completion ${shell} > ${completions}/${shell} DEPENDS sorvane VERBATIM)
  endforeach()
  add_custom_target(completions ALL DEPENDS ${completions}/bash ${completions}/zsh ${completions}/fish)
  install(FILES ${completions}/bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME sorvane)
  install(FILES ${completions}/zsh DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions RENAME _sorvane)
  install(FILES ${completions}/fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d RENAME sorvane.fish)
endif()

file(GLOB man_pages CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/docs/man/*.1)
install(FILES ${man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES README.md docs/threat-model.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
if(APPLE)
  # The agent names the program where it is put, and the log of whoever puts it there, since launchd knows no short form of a
  # home folder. The person copies it to their own folder of launch agents.
  install(CODE "
    set(SORVANED \"\${CMAKE_INSTALL_PREFIX}/Applications/sorvaned.app/Contents/MacOS/sorvaned\")
    set(SORVANE_HOME \"\$ENV{HOME}\")
    set(SORVANE_BUNDLE_IDENTIFIER \"${SORVANE_BUNDLE_IDENTIFIER}\")
    configure_file(\"${CMAKE_CURRENT_SOURCE_DIR}/packaging/macos/launchd.plist.in\"
                   \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/sorvane/${SORVANE_BUNDLE_IDENTIFIER}.plist\" @ONLY)")
else()
  # The unit and the desktop entry name the program where it is put, which is known when it is put there.
  foreach(file lib/systemd/user/sorvaned.service ${CMAKE_INSTALL_DATADIR}/applications/sorvane.desktop)
    get_filename_component(name ${file} NAME)
    install(CODE "
      set(SORVANED \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/sorvaned\")
      configure_file(\"${CMAKE_CURRENT_SOURCE_DIR}/packaging/${name}.in\" \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${file}\" @ONLY)
      list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${CMAKE_INSTALL_PREFIX}/${file}\")")
  endforeach()
  install(FILES packaging/org.sorvane.owner-check.policy DESTINATION ${CMAKE_INSTALL_DATADIR}/polkit-1/actions)
  # PAM reads /etc only; what is put below another prefix is to be copied there, see the README.
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/packaging/sorvane.pam)
    install(CODE "
      set(etc \"\${CMAKE_INSTALL_PREFIX}/etc\")
      if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
        set(etc /etc)
      endif()
      file(INSTALL \"${CMAKE_CURRENT_SOURCE_DIR}/packaging/sorvane.pam\" DESTINATION \"\${etc}/pam.d\" RENAME sorvane)")
  endif()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME sorvane)
set(CPACK_PACKAGE_CONTACT "The sorvane maintainers <maintainers@sorvane.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "local vault of credentials for people who work with coding agents")
set(CPACK_PACKAGE_DESCRIPTION "sorvane keeps credentials in a local vault. Agents get commands run with values
injected and masked after the owner was asked, and never open the vault themselves.")
# With a folder in front of the true paths, so that the install rules see the prefix that will be.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "dbus-user-session, gnome-keyring | kwalletmanager, polkitd")
# What the owner of the computer may edit; an upgrade asks before it is replaced.
if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/packaging/sorvane.pam)
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/conffiles "/etc/pam.d/sorvane\n")
  set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/conffiles)
endif()
include(CPack)
