# Gives Doxygen the headers as it reads them. The headers' comments are plain: "///" blocks, "/* */"
# in C, and headings "// ---- Like this ----" between members. A block that is not directly in
# front of a declaration is about the whole file; a heading begins a group. Its marks are indented
# like the members, or Doxygen would give the group's text to the first of them.

function flush_block(about_file,    i) {
    for (i = 1; i <= held; ++i) {
        if (i > 1) {
            print block[i]
        } else if (kind == "c") {
            sub(/\/\* ?/, about_file ? "/** \\file\n" : "/** ", block[i])
            print block[i]
        } else {
            print (about_file ? indent "/// \\file\n" : "") block[i]
        }
    }
    held = 0
}

function end_group() {
    if (in_group) {
        print "    /// @}\n"  # with an empty line, or the next comment would be part of this one
    }
    in_group = 0
}

function end_heading() {
    if (in_heading) {
        print "    /// @{"
    }
    in_heading = 0
}

# Behind a block: an empty line or a directive means that it belongs to no declaration.
held && !open && !(kind == "cpp" && /^ *\/\/\//) {
    flush_block(/^$/ || /^#/)
}

open {
    block[++held] = $0
    open = !/\*\//
    next
}

/^ *\/\/ ---- .* ----$/ {
    end_group()
    sub(/\/\/ ---- /, "/// \\name ")
    sub(/ ----$/, "")
    print
    in_heading = in_group = 1
    next
}

# Right below a heading an empty line would end what Doxygen takes for the group's text.
in_heading && /^ *\/\/$/ { next }

in_heading && /^ *\/\/ / {
    sub(/\/\//, "///")
    print
    next
}

{ end_heading() }

/^};/ || /^(private|protected|public):/ { end_group() }

/^ *\/\/\// {
    kind = "cpp"
    match($0, /^ */)
    indent = substr($0, 1, RLENGTH)
    block[++held] = $0
    next
}

/^\/\* / {
    kind = "c"
    block[++held] = $0
    open = !/\*\//
    next
}

{ print }
