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
if((NOT EXISTS ${TOVEL_CHROMIUM} OR NOT TOVEL_NODE) AND TOVEL_UID STREQUAL "0" AND TOVEL_APT_GET)
  message(STATUS "Installing chromium and node for the page-layout test")
  execute_process(COMMAND ${TOVEL_APT_GET} install -y chromium nodejs npm
                  RESULT_VARIABLE installed OUTPUT_QUIET ERROR_QUIET)
  if(NOT installed EQUAL 0)
    execute_process(COMMAND ${TOVEL_APT_GET} update OUTPUT_QUIET ERROR_QUIET)
    execute_process(COMMAND ${TOVEL_APT_GET} install -y chromium nodejs npm OUTPUT_QUIET ERROR_QUIET)
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
