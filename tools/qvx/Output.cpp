#include "Output.h"

#include "Arguments.h"
#include "Verbs.h"
#include "Work.h"
#include "quorvex/platform/System.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace qvx {

using Quorvex::platform::FileStatus;

namespace {

constexpr int kStandardInput = 0;
constexpr int kStandardOutput = 1;
constexpr int kStandardError = 2;
constexpr std::size_t kBuffer = 0x10000;

std::string directoryOf(const std::string& path) {
    return std::filesystem::path(path).parent_path().string();
}

} // namespace

void Claims::read(const std::string& path) {
    const auto claim = [this](const FileStatus& status, const std::string& name) {
        if (status.sort == FileStatus::Regular || status.sort == FileStatus::Fifo)
            m_claimed.emplace(Key(status.identity, {}), name);
    };
    if (path == "-") {
        claim(FileStatus::of(kStandardInput), "standard input");
        return;
    }
    Work::now().expect(path);
    std::string real = path;
    int descriptor = -1;
    Quorvex::platform::followLinks(real, descriptor);
    for (const std::string& file : {path, path + ".page", real + ".page"})
        claim(FileStatus::of(file), file == path ? "the input " + path : "the page file " + file + " of an input");
}

void Claims::write(const std::string& name, const std::string& path, const FileStatus& status) {
    Key key(status.identity, {});
    if (status.sort == FileStatus::Missing) {
        const std::string directory = directoryOf(path);
        key = {FileStatus::of(directory.empty() ? "." : directory).identity,
               std::filesystem::path(path).filename().string()};
    } else if (status.sort == FileStatus::Device) {
        return;
    }
    const auto [at, isNew] = m_claimed.emplace(key, "the output " + name);
    if (!isNew)
        throw Failure(name, "is the same file as " + at->second);
}

Target::Target(const std::string& path, bool force, Claims& claims)
    : m_name(path == "-" ? "standard output" : path),
      m_path(path),
      m_force(force),
      m_buffer(m_file),
      m_stream(&m_buffer) {
    int descriptor = path == "-" ? kStandardOutput : -1;
    if (path != "-") {
        if (const int error = Quorvex::platform::followLinks(m_path, descriptor))
            fail(error);
    }
    const bool isOpen = descriptor >= 0;
    const FileStatus status = isOpen ? FileStatus::of(descriptor) : FileStatus::of(m_path);
    m_isFile = !isOpen && (status.sort == FileStatus::Missing || status.sort == FileStatus::Regular);
    m_buffer.canSeek(m_isFile);
    if (status.error != 0)
        fail(status.error);
    if (m_isFile && std::filesystem::path(m_path).filename().empty())
        fail(ENOENT);
    if (!isOpen && status.sort == FileStatus::Directory)
        fail(EISDIR);
    if (!isOpen && status.sort == FileStatus::Other)
        throw Failure(m_name, "is a block device or a socket");
    claims.write(m_name, m_path, status);
    if (m_isFile && status.sort == FileStatus::Regular && !force)
        fail(EEXIST);
    if (status.sort != FileStatus::Missing && !status.isWritable)
        fail(isOpen ? EBADF : EACCES);
    // It is what it is now: once files have been opened, the number may be that of another.
    if (isOpen && !m_file.attach(descriptor))
        fail(m_file.error());
    m_buffer.isTerminal(isOpen && descriptor <= kStandardError && Quorvex::platform::isTerminal(descriptor));
}

void Target::fail(int error) const {
    if (error == EPIPE)
        throw NobodyReads();
    throw Failure(m_name,
                  error == EEXIST ? "exists; use --force to overwrite it" : Quorvex::platform::errorText(error));
}

std::ostream& Target::open() {
    return open(directoryOf(m_path));
}

std::ostream& Target::open(const std::string& directory) {
    if (m_isFile && !m_file.create(directory))
        throw Failure(m_name, "no file can be made in its directory: " + Quorvex::platform::errorText(m_file.error()));
    if (!m_file.is_open() && !m_file.open(m_path))
        fail(m_file.error());
    m_buffer.take();
    return m_stream;
}

void Target::check() const {
    if (m_buffer.error() != 0)
        fail(m_buffer.error());
}

void Target::finish() {
    m_stream.flush();
    check();
}

void Target::pause() {
    finish();
    m_buffer.giveBack();
    if (m_isFile && !m_file.pause())
        fail(m_file.error());
}

void Target::resume() {
    if (m_isFile && !m_file.resume())
        fail(m_file.error());
    m_buffer.take();
}

void Target::commit() {
    if (m_isFile && !m_file.resume())
        fail(m_file.error());
    finish();
    if (!(m_isFile ? m_file.place(m_path, m_force) : m_file.close()))
        fail(m_file.error());
}

void Target::Buffer::take() {
    if (!m_bytes) {
        m_bytes = std::make_unique<char[]>(kBuffer);
        setp(m_bytes.get(), m_bytes.get() + kBuffer);
    }
}

void Target::Buffer::giveBack() {
    setp(nullptr, nullptr);
    m_bytes.reset();
}

Target::Buffer::int_type Target::Buffer::overflow(int_type c) {
    if (sync() != 0)
        return traits_type::eof();
    if (!traits_type::eq_int_type(c, traits_type::eof()))
        sputc(traits_type::to_char_type(c));
    return traits_type::not_eof(c);
}

int Target::Buffer::sync() {
    const auto count = static_cast<std::size_t>(pptr() - pbase());
    if (m_bytes)
        setp(m_bytes.get(), m_bytes.get() + kBuffer);
    return write(m_bytes.get(), count) ? 0 : -1;
}

std::streamsize Target::Buffer::xsputn(const char* text, std::streamsize size) {
    // What fills the buffer by itself need not go through it.
    if (size < static_cast<std::streamsize>(kBuffer))
        return std::streambuf::xsputn(text, size);
    return sync() == 0 && write(text, static_cast<std::size_t>(size)) ? size : 0;
}

bool Target::Buffer::write(const char* bytes, std::size_t count) {
    if (m_isTerminal && count > 0)
        Work::now().hide();
    if (m_error == 0 && !m_file.write(bytes, count))
        m_error = m_file.error();
    m_position += count;
    return m_error == 0;
}

Target::Buffer::pos_type Target::Buffer::seekoff(off_type offset, std::ios::seekdir direction, std::ios::openmode) {
    const auto here = static_cast<off_type>(m_position) + (pptr() - pbase());
    if (direction == std::ios::cur)
        return offset == 0 ? pos_type(here) : seekpos(pos_type(here + offset), std::ios::out);
    return direction == std::ios::beg ? seekpos(pos_type(offset), std::ios::out) : pos_type(off_type(-1));
}

Target::Buffer::pos_type Target::Buffer::seekpos(pos_type position, std::ios::openmode) {
    const auto to = static_cast<std::uint64_t>(std::streamoff(position));
    if (!m_canSeek || sync() != 0 || !m_file.seek(to))
        return pos_type(off_type(-1));
    m_position = to;
    return position;
}

DirectoryTarget::DirectoryTarget(const std::string& path, bool force, Claims& claims,
                                 const std::vector<std::string>& names)
    : m_path(path) {
    namespace fs = std::filesystem;
    while (m_path.size() > 1 && fs::path(m_path).filename().empty())
        m_path = fs::path(m_path).parent_path().string();
    const FileStatus status = FileStatus::of(m_path);
    if (path == "-" || (status.sort != FileStatus::Missing && status.sort != FileStatus::Directory))
        throw Failure(path == "-" ? "standard output" : path, "is no directory, which the format needs");
    if (status.sort == FileStatus::Directory && !force)
        throw Failure(path, "exists; use --force to overwrite it");
    std::error_code error;
    for (fs::directory_iterator at(m_path, error); !error && at != fs::directory_iterator(); at.increment(error)) {
        if (std::ranges::find(names, at->path().filename().string()) == names.end())
            throw Failure(at->path().string(), "is in the way: readers of the format would take it for a part");
    }
    for (const std::string& name : names)
        m_files.push_back(std::make_unique<Target>((fs::path(m_path) / name).string(), force, claims));
}

void DirectoryTarget::open() {
    for (const auto& file : m_files)
        file->open(directoryOf(m_path));
}

void DirectoryTarget::commit() {
    namespace fs = std::filesystem;
    for (const auto& file : m_files)
        file->finish();
    std::error_code error;
    const bool isNew = fs::create_directory(m_path, error);
    if (error)
        throw Failure(m_path, error.message());
    std::size_t placed = 0;
    try {
        for (; placed < m_files.size(); ++placed)
            m_files[placed]->commit();
    } catch (...) {
        while (isNew && placed > 0)
            fs::remove(m_files[--placed]->name(), error);
        if (isNew)
            fs::remove(m_path, error);
        throw;
    }
}

void Output::addOptions(Verb& verb, bool required) {
    Option path =
        verb.option("-o,--output", m_path,
                    required ? "Write to FILE; - for standard output" : "Write to FILE instead of standard output");
    if (required)
        path.required();
    verb.flag("-f,--force", m_force, "Overwrite FILE if it exists");
}

void Output::addOptionsForPeople(Verb& verb) {
    addOptions(verb);
    verb.choice("--color", m_color, {{"auto", Color::Auto}, {"always", Color::Always}, {"never", Color::Never}},
                "auto (default: on a terminal), always, never", "WHEN");
    verb.flag("--no-pager", m_noPager, "Do not show one screen at a time");
}

bool Output::isTerminal() const {
    return m_wasTerminal || (!isNamed() && Quorvex::platform::isTerminal(1));
}

bool Output::isColored() const {
    return m_color == Color::Always ||
           (m_color == Color::Auto && isTerminal() && Quorvex::platform::environment("NO_COLOR").empty() &&
            Quorvex::platform::environment("TERM") != "dumb");
}

void Output::checkForPeople(const std::vector<std::string>& inputs) {
    if (isTerminal() && !m_noPager) {
        const std::string own = Quorvex::platform::environment("PAGER");
        m_wasTerminal =
            m_pager.start(!own.empty() ? own : "if command -v less >/dev/null; then exec less; else exec cat; fi");
        if (m_wasTerminal)
            Work::now().hide();
    }
    check(inputs);
}

void Output::check(const std::vector<std::string>& inputs) {
    for (const std::string& input : inputs)
        m_claims.read(input);
    m_target = std::make_unique<Target>(m_path, m_force, m_claims);
}

DirectoryTarget& Output::checkDirectory(const std::vector<std::string>& inputs, const std::vector<std::string>& names) {
    for (const std::string& input : inputs)
        m_claims.read(input);
    m_directory = std::make_unique<DirectoryTarget>(m_path, m_force, m_claims, names);
    return *m_directory;
}

} // namespace qvx
