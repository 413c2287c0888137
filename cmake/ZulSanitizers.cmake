# ZUL_SANITIZE="address;undefined" or "thread" instruments every target of the build.
if(ZUL_SANITIZE)
  list(JOIN ZUL_SANITIZE "," _zul_sanitizers)
  add_compile_options(-fsanitize=${_zul_sanitizers} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_zul_sanitizers})
  # GCC's flow analysis gives false "may be used uninitialized" reports inside the standard
  # library (<regex>, <functional>) once the code is instrumented.
  add_compile_options(-Wno-maybe-uninitialized)
  if("thread" IN_LIST ZUL_SANITIZE)
    # Asio brackets each handler with memory fences, which ThreadSanitizer does not model; its
    # hand-offs between threads go through mutexes, which it does model, so the warning is moot.
    add_compile_options(-Wno-tsan)
  endif()
endif()
