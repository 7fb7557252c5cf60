# Checks of what no compiler here checks: the macOS adapter (parsed against the project's own
# Apple declarations), the packaging property lists, the shell scripts and the wire library's
# includes.
# Included from the test section of the top-level CMakeLists.txt.

get_filename_component(TERVAIN_ROOT ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)

# On a Mac the adapter is compiled for real; elsewhere clang parses it.
if(NOT APPLE)
  find_program(TERVAIN_CLANGXX NAMES clang++ clang++-19 clang++-18 clang++-17 clang++-16
                                     clang++-15 clang++-14)
  find_program(TERVAIN_CLANG NAMES clang clang-19 clang-18 clang-17 clang-16 clang-15 clang-14)
  if(TERVAIN_CLANGXX AND TERVAIN_CLANG)
    add_test(NAME macos_adapter_syntax
             COMMAND bash ${TERVAIN_ROOT}/tests/macos_sdk/check_syntax.sh ${TERVAIN_ROOT}
                     ${TERVAIN_CLANGXX} ${TERVAIN_CLANG})
  else()
    message(WARNING "clang not found: the macos_adapter_syntax test is not registered "
                    "(scripts/deps installs it)")
  endif()
endif()

find_program(TERVAIN_PYTHON3 NAMES python3)
if(TERVAIN_PYTHON3)
  add_test(NAME macos_packaging_plists
           COMMAND ${TERVAIN_PYTHON3} ${TERVAIN_ROOT}/tests/check_packaging_plists.py
                   ${TERVAIN_ROOT})
endif()

# The wire library includes nothing of the agent's process, spool or desktop code.
add_test(NAME wire_library_includes
         COMMAND bash ${TERVAIN_ROOT}/tests/check_wire_includes.sh ${TERVAIN_ROOT})

# Every shell script of the project, found when the test runs so a new one is never skipped.
find_program(TERVAIN_SHELLCHECK NAMES shellcheck)
if(TERVAIN_SHELLCHECK)
  add_test(NAME shell_scripts_shellcheck
           COMMAND bash -c "shopt -s nullglob; exec \"$0\" --external-sources scripts/* .ci/* packaging/macos/*.sh tests/macos_sdk/*.sh tests/*.sh"
                   ${TERVAIN_SHELLCHECK}
           WORKING_DIRECTORY ${TERVAIN_ROOT})
else()
  message(WARNING "shellcheck not found: the shell scripts are not checked (scripts/deps "
                  "installs it)")
endif()
