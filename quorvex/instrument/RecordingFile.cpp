#include "quorvex/instrument/RecordingFile.h"

#include "quorvex/platform/System.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>

namespace Quorvex::detail {

RecordingPlace::RecordingPlace()
    : directory(platform::environment("QVX_TRACEDIR")), prefix(platform::environment("QVX_TRACEFILENAME")) {
    if (directory.empty())
        directory = platform::temporaryDirectory();
}

bool RecordingPlace::isTooLong() const {
    return directory.size() > platform::kEnvironmentLimit || prefix.size() > platform::kEnvironmentLimit;
}

std::string RecordingPlace::stem(const char* defaultPrefix, unsigned number) const {
    return platform::absolutePath(directory) + "/" + (prefix.empty() ? defaultPrefix : prefix) + std::to_string(number);
}

/// The files that are open. Its lock is held only where no signal handler can come between.
class RecordingFile::Pool {
public:
    static Pool& instance() {
        static Pool& pool = *new Pool; // files may be written until the very end of the process
        return pool;
    }

    std::mutex lock;

    /// Has the file open, by `open`, which returns an error number, and keeps it so until release().
    template <class Open> int acquire(RecordingFile& file, Open&& open) {
        while (true) {
            unsigned released = 0;
            {
                const std::lock_guard hold(lock);
                released = m_released;
                if (Slot* slot = place(file)) {
                    slot->file = &file;
                    slot->lastUse = ++m_uses;
                    int error = file.m_file.isOpen() ? 0 : open();
                    // The program has taken all descriptors there are: one of these will do.
                    for (Slot* idle; (error == EMFILE || error == ENFILE) && (idle = oldestIdle(&file)); error = open())
                        empty(*idle);
                    slot->busy = error == 0;
                    if (error != 0)
                        empty(*slot);
                    return error;
                }
            }
            m_released.wait(released); // all are being written
        }
    }

    void release(RecordingFile& file, bool close) {
        {
            const std::lock_guard hold(lock);
            for (Slot& slot : m_slots) {
                if (slot.file != &file)
                    continue;
                slot.busy = false;
                if (close)
                    empty(slot);
            }
            ++m_released;
        }
        m_released.notify_all();
    }

    void forget() {
        for (Slot& slot : m_slots) {
            if (slot.file)
                empty(slot);
            slot.busy = false;
        }
    }

private:
    struct Slot {
        RecordingFile* file = nullptr;
        std::uint64_t lastUse = 0;
        bool busy = false;
    };

    /// The file's slot, or one that can become it.
    Slot* place(RecordingFile& file) {
        for (Slot& slot : m_slots) {
            if (slot.file == &file)
                return &slot;
        }
        for (Slot& slot : m_slots) {
            if (!slot.file)
                return &slot;
        }
        Slot* slot = oldestIdle(&file);
        if (slot)
            empty(*slot);
        return slot;
    }

    Slot* oldestIdle(const RecordingFile* except) {
        Slot* oldest = nullptr;
        for (Slot& slot : m_slots) {
            if (slot.file && slot.file != except && !slot.busy && (!oldest || slot.lastUse < oldest->lastUse))
                oldest = &slot;
        }
        return oldest;
    }

    static void empty(Slot& slot) {
        slot.file->m_file.close();
        slot.file = nullptr;
    }

    std::array<Slot, kMostOpen> m_slots;
    std::uint64_t m_uses = 0;
    std::atomic<unsigned> m_released{0}; ///< counts up, for those that wait for a slot
};

bool RecordingFile::create(const std::string& stem) {
    constexpr unsigned kMostNames = 100'000;
    const platform::Uninterrupted quiet;
    m_error = EEXIST;
    for (unsigned n = 1; m_error == EEXIST && n <= kMostNames; ++n) {
        m_path = stem + (n == 1 ? "" : "-" + std::to_string(n)) + ".qvx";
        m_error = Pool::instance().acquire(*this, [this] { return m_file.create(m_path.c_str()); });
    }
    if (m_error == 0)
        Pool::instance().release(*this, false);
    return m_error == 0;
}

bool RecordingFile::write(const char* src, unsigned count, std::uint64_t position, unsigned& written) {
    written = 0;
    if (count == 0) {
        m_position = position;
        return true;
    }
    const bool done = withOpen([&] { return m_file.write(src, count, position, written); });
    m_position = position + written;
    return done || written != 0;
}

bool RecordingFile::truncate(std::uint64_t size) {
    m_position = size;
    return withOpen([&] { return m_file.truncate(size); });
}

bool RecordingFile::release(std::uint64_t position, std::uint64_t size) {
    const bool done = withOpen([&] { return m_file.release(position, size); });
    m_error = 0;
    return done;
}

template <class Work> bool RecordingFile::withOpen(Work&& work) {
    const platform::Uninterrupted quiet;
    m_error = Pool::instance().acquire(*this, [this] { return m_file.reopen(m_path.c_str()); });
    if (m_error != 0)
        return false;
    m_error = work();
    Pool::instance().release(*this, m_error != 0);
    return m_error == 0;
}

void RecordingFile::rest() {
    const platform::Uninterrupted quiet;
    Pool::instance().release(*this, true);
}

void RecordingFile::lockAll() {
    Pool::instance().lock.lock();
}

void RecordingFile::unlockAll() {
    Pool::instance().lock.unlock();
}

void RecordingFile::forgetAll() {
    Pool::instance().forget();
}

} // namespace Quorvex::detail
