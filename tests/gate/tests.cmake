# The visitor gate: run as the web server runs a CGI program, one child process per request
# (gate), and as a FastCGI server (supervisor, login helper, workers) started for real as root
# and driven over its socket (fastcgi).
if(TARGET kovasharing-gate)
  foreach(name gate fastcgi)
    kova_test(${name} ${CMAKE_CURRENT_LIST_DIR}/${name}_test.cpp PAM
      LIBS kovasharing kovaplatform DEPENDS kovasharing-gate
      DEFS KOVA_GATE_BINARY="$<TARGET_FILE:kovasharing-gate>")
  endforeach()
endif()
