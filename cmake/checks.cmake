# Checks of what no compiler here checks: the macOS adapter (parsed against the project's own
# Apple declarations), the packaging property lists, the shell scripts and the wire library's
# includes.
# Included from the test section of the top-level CMakeLists.txt.

get_filename_component(TERVAIN_ROOT ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)

# On a Mac everything is compiled for real. Elsewhere clang parses every file a Mac would build
# against Apple's own SDK headers, which the team keeps beside the checkout (shared/macos-sdk/);
# without them the test reports itself skipped. A syntax check gains nothing from sanitizers, so
# only the plain build registers it.
set(TERVAIN_MACOS_SDK_ARCHIVE "${TERVAIN_ROOT}/../shared/macos-sdk/MacOSX14.2-min.sdk.tgz"
    CACHE FILEPATH "Apple's macOS SDK headers, packed, for the macOS syntax check")
if(NOT APPLE AND NOT TERVAIN_SANITIZE)
  find_program(TERVAIN_CLANGXX NAMES clang++ clang++-19 clang++-18 clang++-17 clang++-16
                                     clang++-15 clang++-14)
  find_program(TERVAIN_CLANG NAMES clang clang-19 clang-18 clang-17 clang-16 clang-15 clang-14)
  if(TERVAIN_CLANGXX AND TERVAIN_CLANG)
    add_test(NAME macos_sdk_syntax
             COMMAND bash ${TERVAIN_ROOT}/tests/check_macos_sources.sh ${TERVAIN_ROOT}
                     ${TERVAIN_MACOS_SDK_ARCHIVE} ${CMAKE_BINARY_DIR}/macos-sdk
                     ${TERVAIN_CLANGXX} ${TERVAIN_CLANG})
    set_tests_properties(macos_sdk_syntax PROPERTIES SKIP_RETURN_CODE 77
      ENVIRONMENT "TERVAIN_MACOS_TARGET=${CMAKE_OSX_DEPLOYMENT_TARGET}")
  else()
    message(WARNING "clang not found: the macos_sdk_syntax test is not registered "
                    "(scripts/deps installs it)")
  endif()
endif()

find_program(TERVAIN_PYTHON3 NAMES python3)
if(TERVAIN_PYTHON3)
  add_test(NAME macos_packaging_plists
           COMMAND ${TERVAIN_PYTHON3} ${TERVAIN_ROOT}/tests/check_packaging_plists.py
                   ${TERVAIN_ROOT})
endif()
# The Ansible collection: a real playbook over two agents, and its static checks. Both say
# SKIPPED and count as skipped when ansible-core is missing (scripts/deps installs it). Like the
# MCP client test, they drive the agent from programs nobody here wrote and take a while, so they
# run once, in the plain build; the sanitized builds run the agent's own suite.
if(TERVAIN_PYTHON3 AND NOT TERVAIN_SANITIZE)
  add_test(NAME ansible_playbook
           COMMAND ${TERVAIN_PYTHON3} ${TERVAIN_ROOT}/contrib/ansible/tests/playbook_test.py
                   $<TARGET_FILE:TervainVMAgent> $<TARGET_FILE:tervainctl>)
  add_test(NAME ansible_lint COMMAND bash ${TERVAIN_ROOT}/contrib/ansible/tests/lint.sh)
  set_tests_properties(ansible_playbook ansible_lint PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 900)
endif()

# The wire library includes nothing of the agent's process, spool or desktop code.
add_test(NAME wire_library_includes
         COMMAND bash ${TERVAIN_ROOT}/tests/check_wire_includes.sh ${TERVAIN_ROOT})

# Every shell script of the project, found when the test runs so a new one is never skipped.
find_program(TERVAIN_SHELLCHECK NAMES shellcheck)
if(TERVAIN_SHELLCHECK)
  add_test(NAME shell_scripts_shellcheck
           COMMAND bash -c "shopt -s nullglob; exec \"$0\" --external-sources scripts/* .ci/* packaging/macos/*.sh packaging/linux/*.bash tests/*.sh tests/install/*.sh tests/mcp/*.sh tests/view/*.sh contrib/ansible/*.sh contrib/ansible/tests/*.sh"
                   ${TERVAIN_SHELLCHECK}
           WORKING_DIRECTORY ${TERVAIN_ROOT})
else()
  message(WARNING "shellcheck not found: the shell scripts are not checked (scripts/deps "
                  "installs it)")
endif()
