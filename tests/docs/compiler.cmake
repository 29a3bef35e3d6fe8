# All snippets are one source, which includes every header.
set_property(TEST docs.snippets_test APPEND PROPERTY ENVIRONMENT "CXX=${CMAKE_CXX_COMPILER}")
set_tests_properties(docs.snippets_test PROPERTIES TIMEOUT ${slow_test_timeout})
