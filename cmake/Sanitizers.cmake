if(NETFORGE_SANITIZE)
  add_compile_options(-fsanitize=${NETFORGE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${NETFORGE_SANITIZE})
endif()
