# Writes the mvda manual page: help2man reads `mvda --help`; every command's own --help text
# becomes a section of its own, so the page lists every option. The version is the project's: what
# `mvda --version` adds (BLAS, threads) describes the machine that built the page, not the reader's.
foreach(command pca pls predict cluster chart demo)
  execute_process(COMMAND ${TOOL} ${command} --help OUTPUT_VARIABLE text RESULT_VARIABLE rc)
  if(rc)
    message(FATAL_ERROR "${TOOL} ${command} --help failed: ${rc}")
  endif()
  string(REPLACE "${TOOL}" "mvda" text "${text}")
  # roff: a leading dot or quote would start a request; backslashes escape.
  string(REPLACE "\\" "\\\\" text "${text}")
  string(REGEX REPLACE "\n([.'])" "\n\\\\&\\1" text "${text}")
  string(APPEND commands ".SS \"mvda ${command}\"\n.nf\n${text}.fi\n")
endforeach()
file(READ ${EXTRA} extra)
get_filename_component(folder ${OUT} DIRECTORY)
set(include ${folder}/mvda-man.h2m)
file(WRITE ${include} "[COMMANDS]\n${commands}\n${extra}")
execute_process(
  COMMAND ${HELP2MAN} --no-info --section=1 --version-string=${VERSION} --name=multivariate\ data\ analysis\ of\ CSV\ files
          --include=${include} --output=${OUT}.tmp ${TOOL}
  RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "help2man failed: ${rc}")
endif()
file(RENAME ${OUT}.tmp ${OUT})
