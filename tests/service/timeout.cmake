# It configures several projects one after the other.
set_tests_properties(service.add_service_test PROPERTIES TIMEOUT ${slow_test_timeout})
