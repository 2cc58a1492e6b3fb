# embed_text(TARGET FILE HEADER SYMBOL): builds the text of FILE into TARGET as the std::string_view that HEADER declares as
# sorvane::<target>::SYMBOL. The text must not hold the characters `)text"`.
function(embed_text target file header symbol)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${file})
  file(READ ${CMAKE_CURRENT_SOURCE_DIR}/${file} text)
  # One literal may not be longer than some compilers take, so the text is a row of them.
  string(REPLACE "\n" "\n)text\"\nR\"text(" text "${text}")
  set(source ${CMAKE_CURRENT_BINARY_DIR}/embedded/${symbol}.cpp)
  file(CONFIGURE OUTPUT ${source} @ONLY CONTENT
       "#include \"@header@\"\n\nconst std::string_view sorvane::@target@::@symbol@ = R\"text(@text@)text\";\n")
  target_sources(${target} PRIVATE ${source})
endfunction()
