# Faults under the library: failing system calls inside SQLite, a write lock held by a second
# connection, a CGI process started without standard descriptors. Children of the test program
# are the program itself, started again with KOVA_FAULT_CHILD set.
kova_test(faults ${CMAKE_CURRENT_LIST_DIR}/faults_test.cpp LIBS ${KOVA_LAYERS_UPTO_login})
target_include_directories(test_faults PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../login)
