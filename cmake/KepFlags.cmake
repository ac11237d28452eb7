# Warnings for our own targets, sanitizers for every target.

function(kep_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wcast-align -Wformat=2 -Wundef
    $<$<BOOL:${KEP_WERROR}>:-Werror>)
endfunction()

if(KEP_SANITIZE)
  add_compile_options(-fsanitize=${KEP_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KEP_SANITIZE})
endif()
