#pragma once

#include "quorvex/platform/OutputFile.h"
#include "quorvex/platform/Pager.h"

#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

class Verb;

/// The files of a run, by what they are and not by their names: none that is read is written, and none is written
/// twice.
class Claims {
public:
    /// An input, "-" for standard input, and the page file that may belong to it.
    void read(const std::string& path);
    /// An output, `name` for the user, that leads to `path`. Throws Failure if it is claimed already.
    void write(const std::string& name, const std::string& path, const Quorvex::platform::FileStatus& status);

private:
    /// A file that exists, or a name in a directory that does.
    using Key = std::pair<Quorvex::platform::FileIdentity, std::string>;
    std::map<Key, std::string> m_claimed;
};

/// Where data goes. A file comes to stand under its name only when it is whole, and nothing else is left of it; links
/// are followed. One that exists is replaced only if `force` says so. Devices of characters and FIFOs, among them what
/// /dev/stdout names, are written as they are; other things are refused. All functions throw Failure.
class Target {
public:
    /// Makes sure that `path`, "-" for standard output, can be written and is not claimed. Nothing is changed.
    Target(const std::string& path, bool force, Claims& claims);
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    /// Whether it is a file, which can also be gone back in.
    bool isFile() const { return m_isFile; }
    const std::string& name() const { return m_name; }
    /// Opens it, or makes the file that will be put in its place; that is made in `directory`, on the same file system,
    /// where that of the target may not be there yet.
    std::ostream& open(const std::string& directory);
    std::ostream& open(); ///< makes it in the directory of the target
    std::ostream& stream() { return m_stream; }
    /// The file, once it is open, for those who write it at positions by themselves and read it again; not both ways.
    Quorvex::platform::OutputFile& file() { return m_file; }
    /// Fails if a write has failed.
    void check() const;
    /// Hands all over to the system.
    void finish();
    /// Puts the file in place.
    void commit();
    /// Hands all over, and holds neither descriptor nor memory until resume().
    void pause();
    void resume(); ///< nothing is done where it is not paused

private:
    class Buffer : public std::streambuf {
    public:
        explicit Buffer(Quorvex::platform::OutputFile& file) : m_file(file) {}
        void take(); ///< its memory, if it has given that back
        void giveBack();
        void canSeek(bool can) { m_canSeek = can; }
        void isTerminal(bool is) { m_isTerminal = is; } ///< what it writes to
        int error() const { return m_error; }

    protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(const char* text, std::streamsize size) override;
        int sync() override;
        pos_type seekoff(off_type offset, std::ios::seekdir direction, std::ios::openmode) override;
        pos_type seekpos(pos_type position, std::ios::openmode) override;

    private:
        bool write(const char* bytes, std::size_t count);

        Quorvex::platform::OutputFile& m_file;
        bool m_canSeek = false;
        bool m_isTerminal = false;
        int m_error = 0; ///< of the first write that failed
        std::uint64_t m_position = 0;
        std::unique_ptr<char[]> m_bytes;
    };

    [[noreturn]] void fail(int error) const;

    std::string m_name;
    std::string m_path; ///< where links lead
    bool m_force;
    bool m_isFile = false;
    Quorvex::platform::OutputFile m_file;
    Buffer m_buffer;
    std::ostream m_stream;
};

/// A directory that consists of some files, as output: it comes to stand under its name when they are all whole. One
/// that exists is taken only if `force` says so and no other files are in it; then these are replaced, one after the
/// other. All functions throw Failure.
class DirectoryTarget {
public:
    DirectoryTarget(const std::string& path, bool force, Claims& claims, const std::vector<std::string>& names);

    void open(); ///< all files
    /// One of them, in the order of their names.
    Target& file(std::size_t index) { return *m_files[index]; }
    void commit(); ///< puts all in place

private:
    std::string m_path;
    std::vector<std::unique_ptr<Target>> m_files;
};

/// The options -o and -f of a verb, and the target that they tell of.
class Output {
public:
    void addOptions(Verb& verb, bool required = false);
    /// The same for a verb that tells people something, with those of what is shown on a terminal.
    void addOptionsForPeople(Verb& verb);

    /// Looks at what will be written before work begins; `inputs` are the files that the verb reads.
    void check(const std::vector<std::string>& inputs);
    /// The same for a text that people read: on a terminal it goes through a pager, unless they do not want that.
    void checkForPeople(const std::vector<std::string>& inputs);
    /// The same for a directory that consists of files of those names; target() is the first of them.
    DirectoryTarget& checkDirectory(const std::vector<std::string>& inputs, const std::vector<std::string>& names);
    /// Whether all that is written goes to a terminal.
    bool isTerminal() const;
    /// Whether texts have colours.
    bool isColored() const;
    /// What has been claimed so far.
    Claims& claims() { return m_claims; }
    Target& target() { return m_directory ? m_directory->file(0) : *m_target; }
    /// Whether the target has a name, or is standard output.
    bool isNamed() const { return m_path != "-"; }
    const std::string& path() const { return m_path; } ///< as it was given
    bool force() const { return m_force; }

private:
    enum class Color : std::uint8_t { Auto, Always, Never };

    std::string m_path = "-";
    bool m_force = false;
    Color m_color = Color::Auto;
    bool m_noPager = false;
    bool m_wasTerminal = false;       ///< before there was a pager
    Quorvex::platform::Pager m_pager; ///< goes last
    Claims m_claims;
    std::unique_ptr<Target> m_target;
    std::unique_ptr<DirectoryTarget> m_directory; ///< in its place
};

} // namespace qvx
