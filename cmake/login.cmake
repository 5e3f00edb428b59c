# Visitor-facing parts: the PAM service of the account login, the quickstart example and a
# program of the plain (C) visitor API, which also proves that its header compiles as C.

# The account login of a user-protected link authenticates through this service.
install(FILES pam/kovasharing DESTINATION ${KOVA_ROOT_CLEAN}/etc/pam.d COMPONENT runtime)

add_executable(kovasharing_quickstart examples/quickstart.cpp)
target_compile_options(kovasharing_quickstart PRIVATE ${KOVA_WARNINGS})
target_link_libraries(kovasharing_quickstart PRIVATE kovasharing)

add_executable(kovasharing_plain_login examples/plain_login.c)
set_target_properties(kovasharing_plain_login PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON
  C_EXTENSIONS OFF)
target_compile_options(kovasharing_plain_login PRIVATE ${KOVA_WARNINGS} -pedantic)
target_link_libraries(kovasharing_plain_login PRIVATE kovasharing)
