#pragma once

// Bayeux over plain HTTP POST: the whole body is read, parsed, handed to the
// protocol service through the request's context, and answered by one response
// whose body is a JSON array of replies. A /meta/connect is answered at once with
// a streaming body that the session writes the connect's messages into (a short
// poll's come from its queue); everything else is answered when the service has
// replied.
//
// Threading: no state and no lock. handle() returns before the body is read; the
// work runs in a continuation on whichever thread completes the body, and blocks
// there in Future::get while a batch or a single message waits for its reply (the
// protocol service answers inline). The connect path holds no thread.

#include <memory>

#include "korvane/codec/connect_template.h"
#include "korvane/frame/data_buffer.h"
#include "korvane/frame/http.h"
#include "korvane/export.h"

namespace korvane::bayeux {

class KORVANE_EXPORT BayeuxLongPollServiceProvider : public http::HttpServiceProvider {
public:
    BayeuxLongPollServiceProvider();
    ~BayeuxLongPollServiceProvider() override;

    // `address` is the protocol service's: every message of the body is sent there.
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<http::HttpRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) override;
};

// What handle() does with a body that is already read: for a host that holds the body
// of a POST this transport would be given, so that the request need not be built and
// sent to it. The same answer, log lines and threading as handle(). A host may keep a
// ConnectTemplate per connection and pass it with each body of that connection (one call
// at a time): a connect like the connection's last one but for its id is then read
// without parsing.
KORVANE_EXPORT Future<std::unique_ptr<Message>> answerLongPollBody(common::DataBuffer&& body, const Address& address,
                                                                   const std::shared_ptr<Context>& context,
                                                                   ConnectTemplate* connects = nullptr);

}  // namespace korvane::bayeux
