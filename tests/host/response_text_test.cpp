#include "korvane/host/response_text.h"

#include <gtest/gtest.h>

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

namespace korvane::host {
namespace {

namespace bhttp = boost::beast::http;
using Head = bhttp::response<bhttp::empty_body>;

// What Beast's own serializer writes for the head alone.
std::string beastHead(Head& head) {
    bhttp::response_serializer<bhttp::empty_body> serializer(head);
    serializer.split(true);
    std::string text;
    boost::beast::error_code error;
    while (!error && !serializer.is_header_done()) {
        serializer.next(error, [&](boost::beast::error_code&, const auto& buffers) {
            text += boost::beast::buffers_to_string(buffers);
            serializer.consume(boost::asio::buffer_size(buffers));
        });
    }
    return text;
}

TEST(ResponseText, HeadAndChunksAreWhatBeastWrites) {
    const std::tuple<unsigned, unsigned, const char*, bool, bool> cases[] = {  // status, version, reason, chunked, kept alive
        {200, 11, "", true, true}, {404, 10, "", false, false}, {599, 11, "", false, true}, {200, 11, "Fine", true, false},
        {101, 11, "", false, true}};
    for (const auto& [status, version, reason, chunked, keepAlive] : cases) {
        Head head(static_cast<bhttp::status>(status), version);
        head.reason(reason);
        head.set("Content-Type", "application/json;charset=UTF-8");
        head.insert("x-Mixed-Case", "a, b");
        head.insert("Set-Cookie", "k=v; Path=/");
        head.chunked(chunked);
        head.keep_alive(keepAlive);
        std::string ours = "kept";
        appendSerializedHead(head, ours);
        EXPECT_EQ(ours, "kept" + beastHead(head)) << status << " " << version;
    }
    std::string bare;
    appendSerializedHead(Head(bhttp::status::no_content, 11), bare);
    EXPECT_EQ(bare, "HTTP/1.1 204 No Content\r\n\r\n");
    for (std::size_t size : {1, 15, 16, 255, 256, 4096, 65537}) {
        const std::string data(size, 'x');
        std::string ours = "kept", beasts = "kept";
        appendChunk(data, ours);
        beasts += boost::beast::buffers_to_string(bhttp::make_chunk(boost::asio::buffer(data)));
        EXPECT_EQ(ours, beasts) << size;
    }
    EXPECT_EQ(lastChunk, boost::beast::buffers_to_string(bhttp::make_chunk_last()));
}

}  // namespace
}  // namespace korvane::host
