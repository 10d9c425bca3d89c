# Writes OUTPUT, a C++ source that defines `const char NAME[]` holding the
# bytes of INPUT followed by a zero byte.
#   cmake -DINPUT=<file> -DOUTPUT=<file.cpp> -DNAME=<identifier> -P EmbedText.cmake
file(READ ${INPUT} content HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${content}")
# One line of source per 16 bytes keeps the file readable to compilers.
string(REGEX REPLACE "(('[^']*',){16})" "\\1\n" bytes "${bytes}")
file(WRITE ${OUTPUT}.tmp
  "// Generated from ${INPUT}; do not edit.\n"
  "extern const char ${NAME}[];\n"
  "const char ${NAME}[] = {\n${bytes}\n'\\0'};\n")
file(RENAME ${OUTPUT}.tmp ${OUTPUT})
