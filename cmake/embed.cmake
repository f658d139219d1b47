# Turns a text file into a C++ source that holds it as a string constant.
# Usage: cmake -DIN=file -DOUT=file.cpp -DSYMBOL=name -P embed.cmake
file(READ "${IN}" content)
file(WRITE "${OUT}" "// Generated from ${IN}; do not edit.\n"
     "extern const char ${SYMBOL}[];\n"
     "const char ${SYMBOL}[] = R\"WHTTPD_EMBED(${content})WHTTPD_EMBED\";\n")
