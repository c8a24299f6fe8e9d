# Helpers shared by every folder's CMakeLists.

# Warnings are errors on our own code only; third-party headers come in as
# SYSTEM include directories through their imported targets.
function(corvane_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# corvane_layer(NAME <target> SOURCES ... [PUBLIC_DEPS ...] [PRIVATE_DEPS ...])
# One object library per folder; the shared library links them all.
function(corvane_layer)
  cmake_parse_arguments(L "" "NAME" "SOURCES;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${L_NAME} OBJECT ${L_SOURCES})
  target_include_directories(${L_NAME} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>)
  target_compile_definitions(${L_NAME} PUBLIC OPENSSL_API_COMPAT=0x10100000L)
  target_link_libraries(${L_NAME} PUBLIC ${L_PUBLIC_DEPS} PRIVATE ${L_PRIVATE_DEPS})
  corvane_warnings(${L_NAME})
  set_property(GLOBAL APPEND PROPERTY CORVANE_LAYERS ${L_NAME})
endfunction()

# corvane_test(NAME <exe> SOURCES ... LABEL unit|integration [TSAN] [DEPS ...])
# A GoogleTest executable linked to the shared library; each test case becomes
# its own CTest entry so failures are reported by name. TSAN marks the
# cross-thread tests: a ThreadSanitizer tree builds and runs only those.
function(corvane_test)
  cmake_parse_arguments(T "TSAN" "NAME;LABEL" "SOURCES;DEPS" ${ARGN})
  if(CORVANE_SANITIZE STREQUAL "thread" AND NOT T_TSAN)
    return()
  endif()
  add_executable(${T_NAME} ${T_SOURCES})
  target_link_libraries(${T_NAME} PRIVATE corvane GTest::gtest GTest::gmock GTest::gtest_main
                        Threads::Threads ${T_DEPS})
  target_include_directories(${T_NAME} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_compile_definitions(${T_NAME} PRIVATE
    CORVANE_SOURCE_DIR="${PROJECT_SOURCE_DIR}" CORVANE_BINARY_DIR="${PROJECT_BINARY_DIR}")
  corvane_warnings(${T_NAME})
  gtest_discover_tests(${T_NAME}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS ${T_LABEL}
    DISCOVERY_TIMEOUT 60)
endfunction()
