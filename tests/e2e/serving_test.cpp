// The daemon serving clients. One run through everything a client can do to it: planted
// temporary names, a port already taken, refused, broken, aborted and stalled requests; then the
// stop signals, and a start under a service manager. And many concurrent clients, then kills
// while reports are being written.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio.hpp>
#include <ctime>
#include <deque>
#include <filesystem>
#include <map>
#include <random>
#include <regex>
#include <thread>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

TEST(Serving, NoClientHoldsUpAnotherAndSignalsStopIt) {
    // A zone far from UTC shows whether stamps are local time. Only the test's own user may
    // write: the refusals below are the endpoint's, not the writer policy's.
    DaemonProcess daemon({.extraConfig = "<plugins><user>nobody</user></plugins><access><writers>" +
                                         std::to_string(::geteuid()) + "</writers></access>",
                          .env = {"TZ=XYZ-5:45"}});
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const uint16_t port = daemon.Port();
    const std::string dir = daemon.ReportDir() + "/";
    // Start-up is clean, in the documented line form, and its stamps are UTC.
    const std::string startup = daemon.Logs();
    std::tm stamp{};
    strptime(startup.c_str(), "%Y-%m-%dT%H:%M:%S", &stamp);
    EXPECT_TRUE(
        std::regex_search(startup,
                          std::regex(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z [a-z]+ \w+: )")) &&
        std::labs(timegm(&stamp) - std::time(nullptr)) < 600 &&
        !std::regex_search(startup, std::regex("Z (error|warning) ")))
        << startup;

    DaemonProcess second({.port = port, .waitReady = false});
    EXPECT_EQ(second.WaitExit(), 1);
    // The address is the first that "localhost" resolves to.
    EXPECT_TRUE(
        second.WaitForLog(" error tessard: Exiting due to exception: Cannot listen on ", 0s) &&
        second.Logs().find(":" + std::to_string(port) + ": Address already in use\n") !=
            std::string::npos &&
        second.Logs().find("listening") == std::string::npos)
        << second.Logs();

    // What is found at a temporary name is replaced, never written through.
    TempDir outside;
    WriteFile(outside / "victim", "precious");
    std::filesystem::create_symlink(outside / "victim", dir + ".col-0.json");
    std::filesystem::create_hard_link(outside / "victim", dir + ".col-1.json");
    ASSERT_EQ(0, ::mkfifo((dir + ".col-2.json").c_str(), 0644));
    for (const std::string body : {"{\"n\":0}", "{\"n\":1}", "{\"n\":2}"}) {
        EXPECT_EQ(200, PostStatus(port, "/col", body));
        EXPECT_EQ(body, ReadFile(dir + "col-" + body[5] + ".json"));
    }
    EXPECT_EQ("precious", ReadFile(outside / "victim"));

    // Bodies that stop after a byte, each to a name of its own, and heads that never end
    // stay open throughout: everything below also shows they hold up nobody.
    std::deque<RawHttpConnection> stalled, heads;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 64; ++i) {
        std::string request = PostRequest("/slow/s" + std::to_string(i), std::string(100, '{'));
        ASSERT_TRUE(stalled.emplace_back(port).Send(request.substr(0, request.size() - 99)));
        ASSERT_TRUE(heads.emplace_back(port).Send("POST /slow/h HTTP/1.1\r\nHost:"));
    }

    // Requests cut off half-way through the body, early in it and after the head: closed only
    // once the daemon has them (a client already gone when accepted is unidentified, refused).
    // The largest first: the name's later jobs wait for its job to end, their bytes unread.
    const std::string gone = PostRequest("/r/gone", std::string(1024 * 1024, 'g'));
    std::deque<RawHttpConnection> cut;
    for (size_t sent : {size_t{512 * 1024}, size_t{1000}, size_t{0}})
        ASSERT_TRUE(cut.emplace_back(port).Send(gone.substr(0, gone.size() - 1024 * 1024 + sent)));
    std::this_thread::sleep_for(500ms);
    cut.clear();
    // Time for the daemon to notice the closes; nothing signals it to a client.
    std::this_thread::sleep_for(500ms);
    for (const auto& name : ListDir(daemon.ReportDir()))
        EXPECT_FALSE(name.starts_with("gone") || name.starts_with("s")) << name;
    // The name is not stuck.
    ASSERT_EQ(200, PostStatus(port, "/r/gone", R"({"g":1})"));
    EXPECT_EQ(R"({"g":1})", ReadFile(dir + "gone.json"));

    for (const std::string method : {"GET", "DELETE", "PUT"}) {
        auto reply =
            Exchange(port, method + " /r/m HTTP/1.1\r\nHost: l\r\nContent-Length: 2\r\n\r\n{}");
        EXPECT_EQ(std::tie(reply.status, reply.headers["allow"], reply.headers["cache-control"]),
                  std::make_tuple(405, "POST", "no-store"))
            << method;
    }
    // No declared length (a chunked body) is refused before any body is read; with Expect
    // only the head is sent, so the reply shows whether the body was asked for.
    const std::string type = "POST /r/n HTTP/1.1\r\nHost: l\r\nContent-Type: application/json\r\n";
    const std::string expect =
        "POST /r/expect" + type.substr(9) + "Expect: 100-continue\r\nContent-Length: ";
    const std::pair<std::string, int> rows[] = {
        {type + "X-Pad: " + std::string(17 * 1024, 'p') + "\r\nContent-Length: 0\r\n\r\n", 431},
        {type + "X-Pad: " + std::string(15 * 1024, 'p') + "\r\nContent-Length: 2\r\n\r\n{}", 200},
        {type + "Content-Length: x\r\n\r\n", 400},
        {type + "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 411},
        {expect + "1048577\r\n\r\n", 413},
    };
    for (const auto& [request, status] : rows)
        EXPECT_EQ(status, Exchange(port, request).status) << request.substr(0, 70);
    RawHttpConnection connection(port);
    ASSERT_TRUE(connection.Send(expect + "7\r\n\r\n"));
    EXPECT_EQ(100, connection.ReadReply(5s).value_or(HttpReply{}).status);
    ASSERT_TRUE(connection.Send(R"({"e":1})"));
    EXPECT_EQ(200, connection.ReadReply().value_or(HttpReply{}).status);
    EXPECT_EQ(R"({"e":1})", ReadFile(dir + "expect-0.json"));
    // The same connection carries on.
    ASSERT_TRUE(connection.Send(PostRequest("/r/expect", R"({"e":2})")));
    EXPECT_EQ(200, connection.ReadReply().value_or(HttpReply{}).status);
    EXPECT_EQ("expect-1.json", ReadLink(dir + "expect.json"));

    for (auto& head : heads) EXPECT_TRUE(head.WaitClosed(20s));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 9s);
    EXPECT_EQ(0, daemon.Terminate(SIGTERM)) << daemon.Logs();

    // Under a service manager: told when ready and when stopping, and lines in journal form.
    TempDir notifyDir;
    boost::asio::io_context io;
    using Datagram = boost::asio::local::datagram_protocol;
    Datagram::socket notify(io, Datagram::endpoint(notifyDir / "notify"));
    auto received = [&] {
        std::string datagram(64, '\0');
        if (!Eventually([&] { return notify.available() > 0; })) return std::string();
        return datagram.substr(0, notify.receive(boost::asio::buffer(datagram)));
    };
    daemon.options.env.insert(daemon.options.env.end(),
                              {"NOTIFY_SOCKET=" + notifyDir / "notify", "JOURNAL_STREAM=8:1234"});
    ASSERT_TRUE(daemon.Restart()) << daemon.Logs();
    EXPECT_EQ(received(), "READY=1");
    // Ready means serving, with the launcher's start-up behind it.
    EXPECT_TRUE(daemon.WaitForLog("<5>PluginLauncher: About to schedule slow plugins\n", 0s));
    EXPECT_TRUE(daemon.WaitForLog(
        "<5>tessardEndpoint: HTTP endpoint listening on port: " + std::to_string(port) + "\n", 0s))
        << daemon.Logs();
    EXPECT_EQ(200, PostStatus(port, "/r/up", "{}"));
    EXPECT_EQ(0, daemon.Terminate(SIGINT)) << daemon.Logs();
    EXPECT_EQ(received(), "STOPPING=1");
}

// A body that names its origin; the exact bytes follow from (name, conn, seq, size).
std::string NumberedBody(const std::string& name, int conn, int seq, size_t size) {
    std::string head = R"({"name":")" + name + R"(","conn":)" + std::to_string(conn) +
                       R"(,"seq":)" + std::to_string(seq) + R"(,"pad":")";
    return head + std::string(size - head.size() - 2, '.') + "\"}";
}

std::string Slot(const std::string& name, int index) {
    return name + "-" + std::to_string(index) + ".json";
}

// Many clients post to shared names at once, and then the daemon is killed at random instants
// under a stream of reports to many names: every report lands in ring order, and every kill
// leaves each slot and link with a whole report, loses no acknowledged one and continues each
// ring. One client per name in the kills, so at most one report of a name is in flight at a
// kill. TESSARD_KILLS sets how many kills (the benchmark makes many).
TEST(CrashLoop, ManyClientsReportsLandInOrderAndEveryKillLeavesWholeAcknowledgedReports) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    constexpr int kConnections = 32, kNames = 8, kPerConnection = 400;
    struct Request {
        int status = 0;
        uint64_t sent = 0, answered = 0;  // on a logical clock
    };
    std::atomic<uint64_t> clock{0};
    // Connection c posts its request s to name s % kNames; each is found by its body.
    std::map<std::string, Request> requests;
    for (int c = 0; c < kConnections; ++c)
        for (int s = 0; s < kPerConnection; ++s)
            requests[NumberedBody("n" + std::to_string(s % kNames), c, s, 1024)];
    std::vector<std::jthread> threads;
    for (int c = 0; c < kConnections; ++c)
        threads.emplace_back([&, c] {
            RawHttpConnection connection(daemon.Port());
            for (int s = 0; s < kPerConnection; ++s) {
                const std::string name = "n" + std::to_string(s % kNames),
                                  body = NumberedBody(name, c, s, 1024);
                Request& r = requests.at(body);
                r.sent = ++clock;
                // A failed send shows as a missing reply.
                connection.Send(PostRequest("/load/" + name, body));
                r.status = connection.ReadReply(30s).value_or(HttpReply{}).status;
                r.answered = ++clock;
                if (r.status == 0) return;
            }
        });
    threads.clear();
    EXPECT_EQ(0, std::ranges::count_if(requests, [](auto& r) { return r.second.status != 200; }));

    const std::string dir = daemon.ReportDir() + "/";
    std::set<std::string> expectedEntries;
    for (int n = 0; n < kNames; ++n) {
        const std::string name = "n" + std::to_string(n), named = R"({"name":")" + name + "\"";
        SCOPED_TRACE(name);
        expectedEntries.insert({name + ".json", Slot(name, 0), Slot(name, 1), Slot(name, 2)});
        std::string link = ReadLink(dir + name + ".json");
        ASSERT_TRUE(std::regex_match(link, std::regex(name + "-[012]\\.json"))) << link;
        // Ring order from oldest to newest: the slots after the link's, then the link's.
        std::vector<const Request*> ring;
        for (int step = 1; step <= 3; ++step) {
            std::string file = Slot(name, (link[name.size() + 1] - '0' + step) % 3);
            auto origin = requests.find(ReadFile(dir + file));
            ASSERT_TRUE(origin != requests.end() && origin->first.starts_with(named))
                << file << " is not a whole report to " << name;
            ring.push_back(&origin->second);
        }
        EXPECT_EQ(std::set(ring.begin(), ring.end()).size(), 3u) << "a repeated report";
        // Any request sent after a stored one was answered follows it in the ring,
        // so at most (2 - position) of them exist; none may precede it.
        for (int position = 0; position < 3; ++position) {
            int later = 0;
            for (const auto& [body, r] : requests)
                later += body.starts_with(named) && r.sent > ring[position]->answered;
            EXPECT_LE(later, 2 - position) << "ring position " << position;
            for (int before = 0; before < position; ++before)
                EXPECT_FALSE(ring[position]->answered < ring[before]->sent)
                    << "positions " << before << " and " << position << " out of order";
        }
    }
    EXPECT_EQ(expectedEntries, ListDir(daemon.ReportDir()));
    EXPECT_FALSE(std::regex_search(daemon.Logs(), std::regex("Z error "))) << daemon.Logs();

    const char* wanted = std::getenv("TESSARD_KILLS");
    const int kills = wanted != nullptr ? std::atoi(wanted) : 15;
    struct Name {
        std::string name;
        std::set<std::string> acked;
        std::string newest, inflight;  // the newest acknowledged; one sent and not answered
        int seq = 0;
    };
    std::vector<Name> names(16);
    for (size_t n = 0; n < names.size(); ++n) names[n].name = "k" + std::to_string(n);
    std::mt19937 random(std::random_device{}());
    int inflightAtKill = 0, landedUnanswered = 0;
    for (int kill = 0; kill < kills; ++kill) {
        std::vector<std::jthread> clients;
        for (Name& n : names)
            clients.emplace_back([&, size = random() % 96 + 1, seed = random()] {
                std::minstd_rand sizes(seed);
                RawHttpConnection connection(daemon.Port());
                for (;; ++n.seq) {
                    n.inflight = NumberedBody(n.name, 0, n.seq, 64 + sizes() % (size * 1024));
                    if (!connection.Send(PostRequest("/crash/" + n.name, n.inflight)) ||
                        connection.ReadReply().value_or(HttpReply{}).status != 200)
                        return;
                    n.acked.insert(n.newest = std::exchange(n.inflight, ""));
                }
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(20 + random() % 200));
        daemon.Kill9();
        clients.clear();
        ASSERT_TRUE(daemon.Restart()) << daemon.Logs();

        for (Name& n : names) {
            SCOPED_TRACE(n.name + " after kill " + std::to_string(kill));
            const auto entries = ListDir(daemon.ReportDir());
            int highest = -1;
            bool newestFound = n.newest.empty(), inflightFound = false;
            for (int i = 0; i < 3; ++i) {
                if (!entries.contains(Slot(n.name, i))) continue;
                highest = i;
                std::string content = ReadFile(dir + Slot(n.name, i));
                newestFound = newestFound || content == n.newest;
                inflightFound = inflightFound || (!content.empty() && content == n.inflight);
                EXPECT_TRUE(n.acked.contains(content) || content == n.inflight)
                    << Slot(n.name, i) << " is not a whole posted report";
            }
            inflightAtKill += !n.inflight.empty();
            landedUnanswered += inflightFound;
            // Only the report in flight may have taken the newest acknowledged one's slot.
            EXPECT_TRUE(newestFound || inflightFound) << "the newest acknowledged report is lost";
            std::string link = ReadLink(dir + n.name + ".json");
            EXPECT_TRUE(link.empty() || entries.contains(link)) << "dangling link " << link;
            for (const std::string& entry : entries)
                EXPECT_FALSE(n.inflight.empty() && (entry.starts_with("." + n.name + "-") ||
                                                    entry.starts_with("." + n.name + ".json")))
                    << "temporary " << entry << " left for an answered report";
            // The ring goes on after the highest slot.
            const std::string next = NumberedBody(n.name, 1, kill, 128);
            ASSERT_EQ(200, PostStatus(daemon.Port(), "/crash/" + n.name, next));
            EXPECT_EQ(next, ReadFile(dir + Slot(n.name, (highest + 1) % 3)));
            EXPECT_EQ(Slot(n.name, (highest + 1) % 3), ReadLink(dir + n.name + ".json"));
            // Stored unanswered, the report that was in flight stays a whole posted one.
            if (inflightFound) n.acked.insert(n.inflight);
            n.acked.insert(n.newest = next);
            n.inflight.clear();
        }
    }
    std::printf("%d kills survived: %d reports in flight at a kill, %d of them stored unanswered\n",
                kills, inflightAtKill, landedUnanswered);
}

}  // namespace
}  // namespace TessardTest
