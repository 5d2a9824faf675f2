// Many concurrent clients, and a daemon killed while reports are being written.
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>
#include <tuple>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

using namespace std::chrono_literals;

// A body that names its origin; the exact bytes follow from (name, conn, seq, size).
std::string NumberedBody(const std::string& name, int conn, int seq, size_t size) {
    std::string head = R"({"name":")" + name + R"(","conn":)" + std::to_string(conn) +
                       R"(,"seq":)" + std::to_string(seq) + R"(,"pad":")";
    return head + std::string(size > head.size() + 2 ? size - head.size() - 2 : 0, '.') + "\"}";
}

struct Origin {
    std::string name;
    int conn = -1;
    int seq = -1;
};

// The origin a stored body claims; conn stays -1 when it has none. Callers compare the
// whole content with the body regenerated from it, which proves the file complete.
Origin ParseOrigin(const std::string& content) {
    char name[16] = {};
    Origin origin;
    if (sscanf(content.c_str(), R"({"name":"%15[^"]","conn":%d,"seq":%d)", name, &origin.conn,
               &origin.seq) != 3)
        return {};
    origin.name = name;
    return origin;
}

std::string Slot(const std::string& name, int index) {
    return name + "-" + std::to_string(index) + ".json";
}

// Null when refused, which then shows up as missing replies.
std::unique_ptr<RawHttpConnection> Connect(uint16_t port) {
    try {
        return std::make_unique<RawHttpConnection>(port);
    } catch (const std::runtime_error&) {
        return nullptr;
    }
}

constexpr int kConnections = 32;
constexpr int kNames = 8;
constexpr int kPerName = 50;
constexpr size_t kBodySize = 1024;

struct Request {
    int status = 0;
    uint64_t sent = 0;      // logical clock when the request was sent
    uint64_t answered = 0;  // and when its reply arrived
};

TEST(ManyClients, KeepAliveReportsOfSharedNamesAllLandAndRingStaysOrdered) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    std::atomic<uint64_t> clock{0};
    // requests[conn][seq]; connection c posts seq s to name s % kNames.
    std::vector<std::vector<Request>> requests(kConnections,
                                               std::vector<Request>(kNames * kPerName));
    std::vector<std::thread> threads;
    for (int c = 0; c < kConnections; ++c) {
        threads.emplace_back([&, c] {
            auto connection = Connect(daemon.Port());
            if (!connection) return;
            for (int s = 0; s < kNames * kPerName; ++s) {
                std::string name = "n" + std::to_string(s % kNames);
                Request& r = requests[c][s];
                r.sent = ++clock;
                if (!connection->Send(
                        PostRequest("/load/" + name, NumberedBody(name, c, s, kBodySize))))
                    return;
                auto reply = connection->ReadReply(30s);
                r.answered = ++clock;
                if (!reply) return;
                r.status = reply->status;
            }
        });
    }
    for (auto& t : threads) t.join();
    int failures = 0;
    for (const auto& perConnection : requests)
        for (const auto& r : perConnection) failures += r.status != 200;
    EXPECT_EQ(0, failures);

    const std::string dir = daemon.ReportDir() + "/";
    std::set<std::string> expectedEntries;
    for (int n = 0; n < kNames; ++n) {
        const std::string name = "n" + std::to_string(n);
        SCOPED_TRACE(name);
        expectedEntries.insert({name + ".json", Slot(name, 0), Slot(name, 1), Slot(name, 2)});
        std::string link = ReadLink(dir + name + ".json");
        int newest = link.size() == name.size() + 7 ? link[name.size() + 1] - '0' : -1;
        ASSERT_TRUE(newest >= 0 && newest < 3 && link == Slot(name, newest)) << link;

        // Ring order from oldest to newest: the slots after the link's, then the link's.
        std::vector<const Request*> ring;
        std::set<std::pair<int, int>> seen;
        for (int step = 1; step <= 3; ++step) {
            std::string file = Slot(name, (newest + step) % 3);
            std::string content = ReadFile(dir + file);
            Origin origin = ParseOrigin(content);
            ASSERT_TRUE(origin.name == name && origin.conn >= 0 && origin.conn < kConnections &&
                        origin.seq >= 0 && origin.seq < kNames * kPerName &&
                        origin.seq % kNames == n)
                << file << " holds " << content.substr(0, 80);
            EXPECT_EQ(NumberedBody(name, origin.conn, origin.seq, kBodySize), content) << file;
            EXPECT_TRUE(seen.insert({origin.conn, origin.seq}).second) << file << " repeats";
            ring.push_back(&requests[origin.conn][origin.seq]);
        }
        // Any request sent after a stored one was answered follows it in the ring,
        // so at most (2 - position) of them exist; none may precede it.
        for (int position = 0; position < 3; ++position) {
            int later = 0;
            for (int c = 0; c < kConnections; ++c)
                for (int s = n; s < kNames * kPerName; s += kNames)
                    later += requests[c][s].sent > ring[position]->answered;
            EXPECT_LE(later, 2 - position) << "ring position " << position;
            for (int before = 0; before < position; ++before)
                EXPECT_FALSE(ring[position]->answered < ring[before]->sent)
                    << "positions " << before << " and " << position << " out of order";
        }
    }
    EXPECT_EQ(expectedEntries, ListDir(daemon.ReportDir()));
    EXPECT_EQ(0, daemon.Terminate());
    for (const auto& e : daemon.LogEntries()) EXPECT_NE("error", e.level) << e.message;
}

TEST(SlowClients, StalledBodiesAndHeadsHoldBackNobodyElse) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    std::vector<std::unique_ptr<RawHttpConnection>> stalled;
    for (int i = 0; i < 64; ++i) {
        // A body that stops after one byte, each to a name of its own ...
        stalled.push_back(Connect(daemon.Port()));
        ASSERT_TRUE(stalled.back() &&
                    stalled.back()->Send("POST /slow/s" + std::to_string(i) +
                                         " HTTP/1.1\r\nHost: t\r\nContent-Type: "
                                         "application/json\r\nContent-Length: 100\r\n\r\n{"));
        // ... and a head that never ends.
        stalled.push_back(Connect(daemon.Port()));
        ASSERT_TRUE(stalled.back() && stalled.back()->Send("POST /slow/h HTTP/1.1\r\nHost:"));
    }
    auto good = Connect(daemon.Port());
    ASSERT_TRUE(good);
    for (int s = 0; s < 20; ++s) {
        ASSERT_TRUE(good->Send(PostRequest("/slow/good", NumberedBody("good", 0, s, 1024))));
        auto reply = good->ReadReply(5s);
        ASSERT_TRUE(reply) << "report " << s << " unanswered";
        EXPECT_EQ(200, reply->status);
        EXPECT_EQ(NumberedBody("good", 0, s, 1024),
                  ReadFile(daemon.ReportDir() + "/" + ReadLink(daemon.ReportDir() + "/good.json")));
    }
    EXPECT_EQ(0, daemon.Terminate());
}

TEST(Crash, KilledWhileWritingLeavesOnlyCompleteReportsAndResumes) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const std::string dir = daemon.ReportDir() + "/";
    const std::vector<std::string> names = {"k0", "k1"};
    auto sizeOf = [](int conn, int seq) { return 512 + (conn * 7919 + seq * 104729) % 65536; };
    std::mutex mutex;
    std::set<std::tuple<std::string, int, int>> posted;
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < 4; ++c) {
        threads.emplace_back([&, c] {
            auto connection = Connect(daemon.Port());
            if (!connection) return;
            for (int s = 0;; ++s) {
                const std::string& name = names[static_cast<size_t>(s) % names.size()];
                {
                    std::lock_guard lock(mutex);
                    posted.insert({name, c, s});
                }
                if (!connection->Send(
                        PostRequest("/crash/" + name, NumberedBody(name, c, s, sizeOf(c, s)))))
                    return;
                auto reply = connection->ReadReply(10s);
                if (!reply || reply->status != 200) return;
                ++answered;
            }
        });
    }
    for (auto deadline = std::chrono::steady_clock::now() + 20s;
         answered < 200 && std::chrono::steady_clock::now() < deadline;)
        std::this_thread::sleep_for(1ms);
    daemon.Kill9();
    for (auto& t : threads) t.join();
    ASSERT_GE(answered, 200);

    ASSERT_TRUE(daemon.Restart()) << daemon.Logs();
    for (const auto& name : names) {
        SCOPED_TRACE(name);
        int highest = -1;
        for (int i = 0; i < 3; ++i) {
            if (!std::filesystem::exists(dir + Slot(name, i))) continue;
            highest = i;
            std::string content = ReadFile(dir + Slot(name, i));
            Origin origin = ParseOrigin(content);
            EXPECT_TRUE(posted.count({origin.name, origin.conn, origin.seq}) == 1 &&
                        origin.name == name &&
                        content == NumberedBody(name, origin.conn, origin.seq,
                                                sizeOf(origin.conn, origin.seq)))
                << Slot(name, i) << " is not a whole posted report: " << content.substr(0, 80);
        }
        ASSERT_GE(highest, 0);
        std::string link = ReadLink(dir + name + ".json");
        EXPECT_TRUE(link.empty() || std::filesystem::is_regular_file(dir + link)) << link;

        std::string body = NumberedBody(name, 99, 0, 100);
        ASSERT_EQ(200, PostStatus(daemon.Port(), "/crash/" + name, body));
        EXPECT_EQ(body, ReadFile(dir + Slot(name, (highest + 1) % 3)));
        EXPECT_EQ(Slot(name, (highest + 1) % 3), ReadLink(dir + name + ".json"));
    }
    EXPECT_EQ(0, daemon.Terminate());
}

}  // namespace
}  // namespace TessardTest
