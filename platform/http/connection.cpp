#include "platform/http/connection_impl.h"

namespace Pelinor::Http {

namespace {
// How often a loop looks at the time of its connections.
constexpr std::chrono::milliseconds kSweepPeriod{250};
}  // namespace

HeadParser::HeadParser(size_t headerLimit) {
    header_limit(static_cast<std::uint32_t>(headerLimit));
    // How much body is acceptable is the handler's call, made from Content-Length.
    body_limit(boost::none);
}

void HeadParser::on_request_impl(boost::beast::http::verb verb, string_view methodString,
                                 string_view requestTarget, int version, error_code&) {
    method = verb;
    methodText = methodString;
    target = requestTarget;
    versionNumber = static_cast<unsigned>(version);
}

void HeadParser::on_field_impl(boost::beast::http::field name, string_view, string_view value,
                               error_code&) {
    if (name == boost::beast::http::field::content_type && !haveContentType) {
        contentType = value;
        haveContentType = true;
    } else if (name == boost::beast::http::field::expect) {
        expectContinue = boost::beast::iequals(value, "100-continue");
    }
}

template class Connection<TcpSocket>;

void LoopConnections::Add(ConnectionBase* connection) {
    connection->next = first;
    if (first != nullptr) first->previous = connection;
    first = connection;
    if (!sweeping) Sweep();
}

void LoopConnections::Remove(ConnectionBase* connection) {
    if (connection->previous != nullptr) connection->previous->next = connection->next;
    if (connection->next != nullptr) connection->next->previous = connection->previous;
    if (first == connection) first = connection->next;
    connection->previous = connection->next = nullptr;
    if (first == nullptr) sweeper.cancel();  // an idle loop wakes for nobody
}

void LoopConnections::Sweep() {
    sweeping = false;
    if (first == nullptr) return;
    auto now = Clock::now();
    for (ConnectionBase* connection = first; connection != nullptr; connection = connection->next)
        connection->Sweep(now);
    sweeping = true;
    sweeper.expires_at(now + kSweepPeriod);
    // Called off when the last connection leaves, it still looks whether another came since.
    sweeper.async_wait(
        [self = shared_from_this()](const boost::system::error_code&) { self->Sweep(); });
}

}  // namespace Pelinor::Http
