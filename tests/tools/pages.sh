#!/usr/bin/env bash
# Has the pages that qvx makes read by others: a LaTeX compiler and an HTML checker. Skipped where they are missing.
#
#     pages.sh QVX DATA_DIR
. "$(dirname "$0")/common.sh"
data=$2

# A trace whose texts hold all that means something in either language.
printf '\tCharString\t%d\t%s \n' \
    17 '<b>&amp;</b>"\end' 12 '#$%^&_{}~\|-' 9 $'\xc3\xa4 \xe2\x82\xac \xc3\x9f' 2 '0x7830' 0 '' >hostile.txt
for format in html latex; do
    run 0 dump --format $format hostile.txt -o "hostile.$format"
    run 0 dump --format $format "$data/table_parsable.txt" -o "dump.$format"
    run 0 kinds --format $format -o "kinds.$format"
done

if command -v pdflatex >/dev/null && kpsewhich fullpage.sty >/dev/null; then
    for page in hostile dump kinds; do
        pdflatex -interaction=nonstopmode -halt-on-error "$page.latex" >"$page.log" && [ -s "$page.pdf" ] ||
            { tail -20 "$page.log"; fail "$page.latex does not compile"; }
    done
else
    echo 'skipped: no pdflatex with the fullpage package (texlive-latex-extra)'
fi
if command -v tidy >/dev/null; then
    for page in hostile dump kinds; do
        # The table has no summary, which is the one thing it is told to lack.
        tidy -quiet -errors "$page.html" 2>&1 | grep -v 'lacks "summary" attribute' >complaints
        [ -s complaints ] && { cat complaints; fail "$page.html"; }
    done
else
    echo 'skipped: no tidy'
fi
finish pages
