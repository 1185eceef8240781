# What the checks of packages share.
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ARGV}\nended with ${result}\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

# A configuration for the consumer, and nothing else that it could find.
function(write_settings)
  file(REMOVE_RECURSE ${WORK_DIR})
  unset(ENV{QvtpConfigurationFile})
  file(WRITE ${WORK_DIR}/settings/QvtpConfig.xml
       "<root><QvtpClient function='package' component='consumer' stale_timeout='2'/></root>")
endfunction()

# What the consumer prints; it has to find this idle time-out.
function(run_consumer name timeout program)
  string(RANDOM LENGTH 12 suffix)
  execute_process(
    COMMAND ${EMULATOR} ${program} package-${suffix} ${timeout}
    WORKING_DIRECTORY ${WORK_DIR}/settings
    RESULT_VARIABLE result
    OUTPUT_VARIABLE output
    ERROR_VARIABLE output)
  if(NOT result EQUAL 0 OR NOT output MATCHES "^package ok\r?\n$")
    message(FATAL_ERROR "The consumer ${name} ended with ${result} and printed: ${output}")
  endif()
endfunction()
