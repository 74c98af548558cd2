# Doxygen input filter for the public headers, which carry plain "//"
# comments: the leading block of a file becomes the file's documentation, a
# whole-line comment documents the declaration below it, and a trailing
# comment the member on its line. Line numbers stay as they are.
function flush_top(    i) {
    for (i = 1; i <= ntop; i++) {
        print "///" top[i] (i == ntop ? " \\file" : "")
    }
    ntop = 0
}
BEGIN { intop = 1; ntop = 0 }
intop && /^\/\// { top[++ntop] = substr($0, 3); next }
intop { flush_top(); intop = 0 }
/^[ \t]*#/ { print; next }  # guards and includes document nothing
/^[ \t]*\/\// { sub(/\/\//, "///"); print; next }
/[^ \t].*[ \t]\/\/ / && !/"[^"]*\/\/[^"]*"/ { sub(/[ \t]\/\/ /, " ///< "); print; next }
{ print }
END { if (intop) flush_top() }
