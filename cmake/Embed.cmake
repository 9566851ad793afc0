# Makes a source of a file, which hands its bytes out by a function.
#
#     cmake -DFILE=report.html -DHEADER=ReportPage.h -DFUNCTION=qvx::emptyReportPage -DOUT=page.cpp -P Embed.cmake
file(READ "${FILE}" bytes HEX)
# Rows of 32 bytes.
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
string(REPEAT "....." 32 row)
string(REGEX REPLACE "(${row})" "\\1\n    " bytes "${bytes}")
file(WRITE "${OUT}" "#include \"${HEADER}\"

namespace {

constexpr unsigned char kBytes[] = {
    ${bytes}};

} // namespace

std::string_view ${FUNCTION}() {
    return {reinterpret_cast<const char*>(kBytes), sizeof kBytes};
}
")
