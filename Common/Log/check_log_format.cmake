# Proves that the compiler checks log calls against their formats: a call
# that fits compiles, and each kind of call whose argument does not fit is
# refused with a format diagnostic. Run with -DCXX=<compiler> -DSRC=<tree>.
function(compile_log_calls file result_var output_var)
  execute_process(
    COMMAND "${CXX}" -std=c++17 -fsyntax-only -Wformat -Werror=format -I "${SRC}"
            "${SRC}/Common/Log/testdata/${file}"
    RESULT_VARIABLE result
    ERROR_VARIABLE output)
  set(${result_var} "${result}" PARENT_SCOPE)
  set(${output_var} "${output}" PARENT_SCOPE)
endfunction()

compile_log_calls(format_matches.cpp result output)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "log calls that fit their formats were refused:\n${output}")
endif()

foreach(file format_mismatch_message.cpp format_mismatch_return_code.cpp)
  compile_log_calls(${file} result output)
  if(result EQUAL 0)
    message(FATAL_ERROR "${file}: a log call that does not fit its format compiled")
  endif()
  if(NOT output MATCHES "-Werror=format")
    message(FATAL_ERROR "${file}: refused, but not for its format:\n${output}")
  endif()
endforeach()
