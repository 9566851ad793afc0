#include "PageServer.h"

#include "ReportPage.h"
#include "Verbs.h"
#include "quorvex/platform/System.h"

#include <fmt/format.h>

#include <cerrno>
#include <exception>
#include <microhttpd.h>
#include <netinet/in.h>
#include <optional>
#include <random>
#include <string_view>
#include <utility>
#include <vector>

namespace qvx {

namespace {

constexpr std::chrono::milliseconds kBeat{500}; ///< after which a page that has gone is missed
constexpr unsigned kMemory = 64 * 1024;         ///< of a connection: a request is no longer
constexpr unsigned kConnections = 64;
constexpr unsigned kIdleSeconds = 30;

std::string randomToken() {
    std::random_device random;
    std::string token;
    for (int i = 0; i < 4; ++i)
        token += fmt::format("{:08x}", static_cast<std::uint32_t>(random()));
    return token;
}

/// Compares in a time that does not tell how much of it is right.
bool isSame(std::string_view given, std::string_view expected) {
    unsigned difference = given.size() == expected.size() ? 0 : 1;
    for (std::size_t i = 0; i < given.size(); ++i)
        difference |= static_cast<unsigned char>(given[i] ^ expected[i % expected.size()]);
    return difference == 0;
}

/// The page, which may ask who has served it, and shall not for an icon.
std::string servedPage() {
    std::string page(emptyReportPage());
    const auto insertBehind = [&page](std::string_view what, std::string_view text) {
        const std::size_t at = page.find(what);
        if (at == std::string::npos)
            throw Failure("the page", "is not as expected");
        page.insert(at + what.size(), text);
    };
    insertBehind("default-src 'none';", " connect-src 'self';");
    insertBehind("<title>Trace</title>", "<link rel=\"icon\" href=\"data:,\">");
    return page;
}

/// The values of a header, by all its lines.
std::vector<std::string> valuesOf(MHD_Connection* connection, std::string_view name) {
    struct Search {
        std::string_view name;
        std::vector<std::string> found;
    } search{name, {}};
    MHD_get_connection_values(
        connection, MHD_HEADER_KIND,
        [](void* to, MHD_ValueKind, const char* key, const char* value) {
            auto& its = *static_cast<Search*>(to);
            const std::string_view given(key);
            const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
            bool isIt = given.size() == its.name.size();
            for (std::size_t i = 0; isIt && i < given.size(); ++i)
                isIt = lower(given[i]) == its.name[i];
            if (isIt)
                its.found.emplace_back(value ? value : "");
            return MHD_YES;
        },
        &search);
    return search.found;
}

TrackAnswers::Words wordsOf(MHD_Connection* connection) {
    TrackAnswers::Words words;
    MHD_get_connection_values(
        connection, MHD_GET_ARGUMENT_KIND,
        [](void* to, MHD_ValueKind, const char* key, const char* value) {
            (*static_cast<TrackAnswers::Words*>(to))[key] = value ? value : "";
            return MHD_YES;
        },
        &words);
    return words;
}

} // namespace

/// What the library calls.
struct PageServer::Handling {
    static MHD_Result request(void* server, MHD_Connection* connection, const char* path, const char* method,
                              const char* /*version*/, const char* /*body*/, std::size_t* /*size*/, void** /*state*/) {
        try {
            return static_cast<PageServer*>(server)->respond(connection, method, path) == 0 ? MHD_NO : MHD_YES;
        } catch (const std::exception&) {
            return MHD_NO; // there is no memory: the connection is closed
        }
    }

    // The answer to a page that stays open has no end; a byte now and then shows whether it is still there.
    static ssize_t beat(void* server, std::uint64_t /*position*/, char* buffer, std::size_t) {
        auto& its = *static_cast<PageServer*>(server);
        std::unique_lock lock(its.m_watching);
        if (its.m_changed.wait_for(lock, kBeat, [&its] { return its.m_ends; }))
            return MHD_CONTENT_READER_END_OF_STREAM;
        *buffer = '\n';
        return 1;
    }
    static void gone(void* server) {
        auto& its = *static_cast<PageServer*>(server);
        const std::lock_guard lock(its.m_watching);
        --its.m_open;
        its.m_changed.notify_all();
    }
};

PageServer::PageServer(const TrackAnswers& answers) : m_answers(answers), m_page(servedPage()), m_token(randomToken()) {
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK); // any port
    m_daemon = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL, 0,
                                nullptr, nullptr, &Handling::request, this, MHD_OPTION_SOCK_ADDR, &loopback,
                                MHD_OPTION_CONNECTION_MEMORY_LIMIT, std::size_t{kMemory}, MHD_OPTION_CONNECTION_LIMIT,
                                kConnections, MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds, MHD_OPTION_END);
    const MHD_DaemonInfo* const info = m_daemon ? MHD_get_daemon_info(m_daemon, MHD_DAEMON_INFO_BIND_PORT) : nullptr;
    if (!info)
        throw Failure("127.0.0.1", "cannot listen there: " + Quorvex::platform::errorText(errno));
    m_host = fmt::format("127.0.0.1:{}", info->port);
    m_otherHost = fmt::format("localhost:{}", info->port);
}

PageServer::~PageServer() {
    {
        const std::lock_guard lock(m_watching);
        m_ends = true;
        m_changed.notify_all();
    }
    MHD_stop_daemon(m_daemon);
}

void PageServer::waitForEnd(std::chrono::milliseconds patience) {
    std::unique_lock lock(m_watching);
    do
        m_changed.wait(lock, [this] { return m_hasBeen && m_open == 0; });
    while (m_changed.wait_for(lock, patience, [this] { return m_open > 0; }));
}

unsigned PageServer::refusalOf(MHD_Connection* connection, const std::string& method, const std::string& path) const {
    if (method != MHD_HTTP_METHOD_GET && method != MHD_HTTP_METHOD_HEAD)
        return MHD_HTTP_METHOD_NOT_ALLOWED;
    const std::vector<std::string> hosts = valuesOf(connection, "host");
    if (hosts.size() != 1 || (hosts.front() != m_host && hosts.front() != m_otherHost))
        return MHD_HTTP_MISDIRECTED_REQUEST;
    for (const std::string& origin : valuesOf(connection, "origin")) {
        if (origin != "http://" + hosts.front())
            return MHD_HTTP_FORBIDDEN;
    }
    for (const std::string& site : valuesOf(connection, "sec-fetch-site")) {
        if (site != "same-origin" && site != "none")
            return MHD_HTTP_FORBIDDEN;
    }
    if (path == "/")
        return 0;
    const std::vector<std::string> tokens = valuesOf(connection, "x-token");
    return tokens.size() == 1 && isSame(tokens.front(), m_token) ? 0 : MHD_HTTP_FORBIDDEN;
}

int PageServer::respond(MHD_Connection* connection, const std::string& method, const std::string& path) {
    constexpr std::string_view kAnswers = "/api/";
    unsigned status = refusalOf(connection, method, path);
    std::optional<std::string> answer;
    MHD_Response* response = nullptr;
    if (status == 0 && path == "/") {
        answer = m_page;
    } else if (status == 0 && path == "/api/open" && method == MHD_HTTP_METHOD_GET) {
        response = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, 64, &Handling::beat, this, &Handling::gone);
        if (!response)
            return 0;
        const std::lock_guard lock(m_watching);
        ++m_open;
        m_hasBeen = true;
        m_changed.notify_all();
    } else if (status == 0 && path.starts_with(kAnswers)) {
        answer = m_answers.answer(path.substr(kAnswers.size()), wordsOf(connection));
    }
    if (!response) {
        status = status != 0 ? status : answer ? 0 : MHD_HTTP_NOT_FOUND;
        const std::string text = answer.value_or(fmt::format("{}\n", status));
        response = MHD_create_response_from_buffer(text.size(), const_cast<char*>(text.data()), MHD_RESPMEM_MUST_COPY);
        if (!response)
            return 0;
    }
    constexpr std::pair<const char*, const char*> kHeaders[] = {{"Content-Security-Policy", "frame-ancestors 'none'"},
                                                                {"X-Content-Type-Options", "nosniff"},
                                                                {"Referrer-Policy", "no-referrer"},
                                                                {"Cache-Control", "no-store"},
                                                                {"Cross-Origin-Resource-Policy", "same-origin"},
                                                                {"Cross-Origin-Opener-Policy", "same-origin"},
                                                                {"Cross-Origin-Embedder-Policy", "require-corp"}};
    for (const auto& [name, value] : kHeaders)
        MHD_add_response_header(response, name, value);
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE,
                            path == "/" && status == 0 ? "text/html; charset=utf-8" : "application/octet-stream");
    const MHD_Result result = MHD_queue_response(connection, status == 0 ? MHD_HTTP_OK : status, response);
    MHD_destroy_response(response);
    return result;
}

} // namespace qvx
