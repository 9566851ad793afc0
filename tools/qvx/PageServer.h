#pragma once

#include "TrackAnswers.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

struct MHD_Connection;
struct MHD_Daemon;

namespace qvx {

/// Serves the page to a browser of this machine, and answers what the page asks.
///
/// It listens on the loopback address alone. What a trace holds is told only to who shows the token, which stands
/// behind the "#" of the address and so is never sent by a browser by itself. Questions that come from pages of other
/// origins, or by another name of this machine, are refused whatever they show: by the header Host, which has to be
/// there once, and by Origin and Sec-Fetch-Site. No path leads to a file.
class PageServer {
public:
    /// `answers` outlives it. Throws Failure when nothing can be served.
    explicit PageServer(const TrackAnswers& answers);
    ~PageServer();
    PageServer(const PageServer&) = delete;
    PageServer& operator=(const PageServer&) = delete;

    /// Where the page is, with the token.
    std::string address() const { return "http://" + m_host + "/#t=" + m_token; }
    /// Waits until a page has been open, and none has for so long.
    void waitForEnd(std::chrono::milliseconds patience);

private:
    struct Handling;

    /// Why a request is refused: a status of HTTP, or 0.
    unsigned refusalOf(MHD_Connection* connection, const std::string& method, const std::string& path) const;
    int respond(MHD_Connection* connection, const std::string& method, const std::string& path);

    const TrackAnswers& m_answers;
    std::string m_page;
    std::string m_token;
    std::string m_host; ///< and port
    std::string m_otherHost;
    MHD_Daemon* m_daemon = nullptr;

    std::mutex m_watching; ///< guards what is below
    std::condition_variable m_changed;
    unsigned m_open = 0; ///< pages
    bool m_hasBeen = false;
    bool m_ends = false;
};

} // namespace qvx
