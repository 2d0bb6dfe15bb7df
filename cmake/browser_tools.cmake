# The file server's page-layout test drives headless Chromium through
# playwright-core. Both are installed here when missing, so that a plain
# configure of a fresh machine can run it: Chromium (and node) from apt when
# running as root, playwright-core from npm into the build tree.
set(TOVEL_CHROMIUM /usr/bin/chromium)
set(TOVEL_BROWSER_TOOLS ${CMAKE_BINARY_DIR}/browser-tools)
set(TOVEL_PLAYWRIGHT_CORE ${TOVEL_BROWSER_TOOLS}/node_modules/playwright-core)

find_program(TOVEL_NODE node)
find_program(TOVEL_APT_GET apt-get)
execute_process(COMMAND id -u OUTPUT_VARIABLE TOVEL_UID OUTPUT_STRIP_TRAILING_WHITESPACE)
# Only what is missing: a node that did not come from apt conflicts with
# Debian's npm package, which would fail the whole install.
set(TOVEL_BROWSER_PACKAGES)
if(NOT EXISTS ${TOVEL_CHROMIUM})
  list(APPEND TOVEL_BROWSER_PACKAGES chromium)
endif()
if(NOT TOVEL_NODE)
  list(APPEND TOVEL_BROWSER_PACKAGES nodejs npm)
endif()
if(TOVEL_BROWSER_PACKAGES AND TOVEL_UID STREQUAL "0" AND TOVEL_APT_GET)
  message(STATUS "Installing ${TOVEL_BROWSER_PACKAGES} for the page-layout test")
  execute_process(COMMAND ${TOVEL_APT_GET} install -y ${TOVEL_BROWSER_PACKAGES}
                  RESULT_VARIABLE installed OUTPUT_QUIET ERROR_QUIET)
  if(NOT installed EQUAL 0)
    execute_process(COMMAND ${TOVEL_APT_GET} update OUTPUT_QUIET ERROR_QUIET)
    execute_process(COMMAND ${TOVEL_APT_GET} install -y ${TOVEL_BROWSER_PACKAGES}
                    OUTPUT_QUIET ERROR_QUIET)
  endif()
endif()

find_program(TOVEL_NPM npm)
if(TOVEL_NPM AND NOT EXISTS ${TOVEL_PLAYWRIGHT_CORE})
  message(STATUS "Installing playwright-core for the page-layout test")
  execute_process(COMMAND ${TOVEL_NPM} install --prefix ${TOVEL_BROWSER_TOOLS} --no-audit --no-fund
                          playwright-core@1.65.1 OUTPUT_QUIET ERROR_QUIET)
endif()

target_compile_definitions(serve_tests PRIVATE
  TOVEL_CHROMIUM="${TOVEL_CHROMIUM}"
  TOVEL_PLAYWRIGHT_CORE="${TOVEL_PLAYWRIGHT_CORE}"
  TOVEL_PAGE_LAYOUT_SCRIPT="${CMAKE_CURRENT_SOURCE_DIR}/serve/page_layout.js")
