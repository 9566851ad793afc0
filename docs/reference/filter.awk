# Doxygen reads the headers through this filter (Doxyfile). It puts in what need not be written at each place:
#   - a kind of packet has the description and layout of its row in TCodes.def
#   - an overload below a function with a text has that text
#   - what means the same in every class is told once, in `texts`: rows of a pattern for the name, a tab and the text
# A class or member with a comment of its own keeps that.
BEGIN {
    while ((getline line < texts) > 0) {
        if (split(line, pair, "\t") == 2) {
            pattern[++rows] = pair[1]
            text[rows] = pair[2]
        }
    }
    while ((getline line < codes) > 0) {
        if (line ~ /^QUORVEX_(ABSOLUTE_)?TCODE/) {
            split(line, quoted, "\"")
            split(line, words, /[(,] */)
            kind["C" words[3]] = "Packet \"" quoted[2] "\": `" quoted[4] "`."
        }
    }
}
function last_word(line, cut) {
    sub(cut, "", line)
    sub(/.*[^A-Za-z_0-9#~]/, "", line)
    return line
}
# The name that a line declares; empty if it declares none.
function declared(line) {
    sub(/[ \t]*(\\|\/\/.*)?$/, "", line)
    sub(/\[\[[a-z]+\]\] /, "", line)
    if (line ~ /^[ \t]*(return|if|for|while|else|case|throw|delete|:|,|\(|}|#)/ || line ~ /^[ \t]*\/[\/*]/)
        return ""
    if (line ~ /operator [A-Za-z]/)
        return "operator"
    if (match(line, /operator *[^ A-Za-z(]+ *\(|operator\(\) *\(/)) {
        line = substr(line, RSTART, RLENGTH - 1)
        gsub(/ /, "", line)
        return line
    }
    if (match(line, /^[ \t]*(template <.*> *)?(class|struct|union|enum class|enum) [A-Za-z_0-9 ]+/) && line !~ /;$/) {
        line = substr(line, RSTART, RLENGTH)
        sub(/ final$| *$/, "", line)
        return last_word(line, "$")
    }
    if (match(line, /^[ \t]*(template <.*> *)?((virtual|static|constexpr|inline|explicit|friend) )*([A-Za-z_:][A-Za-z_:<>,*& 0-9]*[ *&])?~?[A-Za-z_0-9#]+\(/))
        return last_word(substr(line, RSTART, RLENGTH), "[(]$")
    if (match(line, /^[ \t]*using [A-Za-z_0-9]+ =/) || match(line, /^[ \t]*static (inline )?constexpr [^(=]*[ *&][A-Za-z_0-9]+( =|;|\{)/))
        return last_word(substr(line, RSTART, RLENGTH), "( =|;|[{])$")
    if (match(line, /^[ \t]+(const )?[A-Za-z_:0-9<>]+[ *]+[A-Za-z][A-Za-z0-9]*( = .*)?;$/)) {
        sub(/( = .*)?;$/, "", line)
        return last_word(line, "$")
    }
    return ""
}
function told(name, i) {
    if (name in kind)
        return kind[name]
    for (i = 1; i <= rows; ++i)
        if (name ~ "^(" pattern[i] ")$")
            return text[i]
    return ""
}
{
    line = $0
    # What a base brings along is shown with the base.
    sub(/^[ \t]*(using [A-Za-z_:<>]+::[A-Za-z_]+|friend [A-Za-z_<>]+);/, "", line)
    # Where a template is compiled, and the texts of failures, are nobody's to use.
    if (line !~ /#[ \t]*define/)
        sub(/QUORVEX_EXTERN_TEMPLATE\(.*\)/, "", line)
    if (line ~ /^extern .* ReadRules /)
        hidden = ";"
    if (line ~ /^QUORVEX_EXTERN_TEMPLATE\(/)
        hidden = ")"
    if (line ~ /^extern template /)
        hidden = ";"
    if (hidden != "") {
        if (index(line, hidden))
            hidden = ""
        line = ""
    }
    # Doxygen takes a template that is its own base, with other arguments, for endless.
    sub(/, PacketOf<[^<>]*>,/, ", CPacket,", line)
    name = declared(line)
    isClass = line ~ /^[ \t]*(template <.*> *)?(class|struct|union|enum) /
    if (isClass || line ~ /^[ \t]*#[ \t]*define/)
        last = ""
    if (name != "") {
        added = ""
        if (commented || line ~ /\/\/\/</)
            last = isClass ? "" : name
        else if (line ~ /\) override|\) const override/)
            added = "" # has the text of what it overrides
        else if (name == last)
            added = "\\overload"
        else if (name in classes)
            added = "Made from these values."
        else
            added = told(name)
        if (isClass)
            classes[name] = 1
        if (added != "") {
            match(line, /^[ \t]*/)
            line = substr(line, 1, RLENGTH) "/** " added " */ " substr(line, RLENGTH + 1)
        }
    }
    # A comment belongs to what stands below it, also past the line of a template.
    if ($0 ~ /^[ \t]*\/\/\/([^<]|$)/ || $0 ~ /\*\/[ \t]*\\?$/)
        commented = 1
    else if ($0 !~ /^[ \t]*template <[^(]*>[ \t]*\\?$/)
        commented = 0
    print line
}
