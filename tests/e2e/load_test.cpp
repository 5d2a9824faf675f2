// Many concurrent clients, and a daemon killed while reports are being written.
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <regex>
#include <thread>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

// A body that names its origin; the exact bytes follow from (name, conn, seq, size).
std::string NumberedBody(const std::string& name, int conn, int seq, size_t size) {
    std::string head = R"({"name":")" + name + R"(","conn":)" + std::to_string(conn) +
                       R"(,"seq":)" + std::to_string(seq) + R"(,"pad":")";
    return head + std::string(size - head.size() - 2, '.') + "\"}";
}

std::string Slot(const std::string& name, int index) {
    return name + "-" + std::to_string(index) + ".json";
}

TEST(ManyClients, ReportsOfSharedNamesAllLandInOrderAndSurviveAKill) {
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
                const std::string name = "n" + std::to_string(s % kNames);
                const std::string body = NumberedBody(name, c, s, 1024);
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
    for (const auto& e : daemon.LogEntries()) EXPECT_NE("error", e.level) << e.message;

    // Killed while writing, it leaves only whole reports and resumes the rings.
    std::vector<std::set<std::string>> posted(4);  // by connection
    std::atomic<int> answered{0};
    for (int c = 0; c < 4; ++c)
        threads.emplace_back([&, c] {
            RawHttpConnection connection(daemon.Port());
            for (int s = 0;; ++s) {
                const std::string name = "k" + std::to_string(s % 2);
                std::string body = NumberedBody(name, c, s, 512 + (c * 7919 + s * 104729) % 65536);
                posted[c].insert(body);
                if (!connection.Send(PostRequest("/crash/" + name, body)) ||
                    connection.ReadReply().value_or(HttpReply{}).status != 200)
                    return;
                ++answered;
            }
        });
    Eventually([&] { return answered >= 200; }, 20s);
    daemon.Kill9();
    threads.clear();
    ASSERT_GE(answered, 200);

    ASSERT_TRUE(daemon.Restart()) << daemon.Logs();
    for (const std::string name : {"k0", "k1"}) {
        SCOPED_TRACE(name);
        int highest = -1;
        for (int i = 0; i < 3; ++i) {
            if (!std::filesystem::exists(dir + Slot(name, i))) continue;
            highest = i;
            std::string content = ReadFile(dir + Slot(name, i));
            EXPECT_TRUE(content.starts_with(R"({"name":")" + name + "\"") &&
                        std::ranges::any_of(posted, [&](auto& p) { return p.count(content); }))
                << Slot(name, i) << " is not a whole posted report: " << content.substr(0, 80);
        }
        ASSERT_GE(highest, 0);
        std::string link = ReadLink(dir + name + ".json");
        EXPECT_TRUE(link.empty() || std::filesystem::is_regular_file(dir + link)) << link;

        ASSERT_EQ(200, PostStatus(daemon.Port(), "/crash/" + name, "{}"));
        EXPECT_EQ("{}", ReadFile(dir + Slot(name, (highest + 1) % 3)));
        EXPECT_EQ(Slot(name, (highest + 1) % 3), ReadLink(dir + name + ".json"));
    }
    EXPECT_EQ(0, daemon.Terminate());
}

}  // namespace
}  // namespace TessardTest
