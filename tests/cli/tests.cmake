# The administrator tool as a child process; visitors log in through PAM (pam_wrapper).
if(TARGET kovasharing_cli)
  kova_test(cli ${CMAKE_CURRENT_LIST_DIR}/cli_test.cpp PAM LIBS kovasharing kovaplatform
    DEPENDS kovasharing_cli DEFS KOVA_CLI_PROGRAM="$<TARGET_FILE:kovasharing_cli>"
    KOVA_CLI_MANPAGE="${CMAKE_SOURCE_DIR}/doc/kovasharing.1")
endif()
