#include "tools/gateway/rest/InferExchange.h"

#include <boost/beast/http/error.hpp>
#include <charconv>
#include <cstring>
#include <utility>

#include "tools/gateway/Failure.h"
#include "tools/gateway/rest/JsonTensor.h"

namespace kelm::gateway {

namespace {

namespace http = boost::beast::http;

constexpr const char* kNoTextMemory =
    "all requests together hold too much JSON; try again later, or send binary data";

std::optional<size_t> readJsonLength(const HttpParser::value_type& request) {
    const auto [first, last] = request.equal_range("Inference-Header-Content-Length");
    if (first == last) return std::nullopt;
    const auto text = first->value();
    size_t length = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), length);
    if (std::next(first) != last || parsed.ec != std::errc() ||
        parsed.ptr != text.data() + text.size()) {
        refuse("Inference-Header-Content-Length must be one number of bytes");
    }
    return length;
}

}  // namespace

InferExchange::InferExchange(std::shared_ptr<HttpExchange> exchange, std::shared_ptr<Model> model,
                             MemoryBudget& textMemory)
    : m_http(std::move(exchange)), m_model(std::move(model)), m_textMemory(textMemory) {}

template <class Step>
void InferExchange::attempt(Step step) {
    try {
        step();
    } catch (const Failure& failure) {
        m_http->reply(HttpReply::of(failure));
    } catch (const std::exception& error) {
        m_http->reply(HttpReply::ofError(500, error.what()));
    }
}

// A body that ends early or is no body is the peer's mistake; a connection that ends has no answer.
void InferExchange::fail(const boost::system::error_code& error) {
    if (error == boost::asio::error::operation_aborted) {
        return m_http->reply(HttpReply::ofError(408, "the body of the request took too long"));
    }
    if (error == boost::asio::error::no_buffer_space) {
        return m_http->reply(HttpReply::of(Failure(Cause::kUnavailable, kNoTextMemory)));
    }
    const Failure failure =
        error == http::error::body_limit
            ? Failure(Cause::kTooLarge, "the body is larger than it may be, or than its tensors")
            : Failure(Cause::kInvalid, "the body cannot be read: " + error.message());
    m_http->reply(HttpReply::of(failure));
}

void InferExchange::begin() {
    attempt([this] {
        const HttpBody& body = m_http->body();
        m_jsonBytes = readJsonLength(m_http->request());
        if (!body.isChunked() && !m_http->request().has_content_length()) {
            return m_http->reply(HttpReply::ofError(411, "the length of the body is missing"));
        }
        const uint64_t json = m_jsonBytes ? *m_jsonBytes : body.remaining();
        if (json > m_http->limits().json) {
            throw Failure(Cause::kTooLarge, "the JSON part is larger than " +
                                                std::to_string(m_http->limits().json) + " bytes");
        }
        if (m_jsonBytes && !body.isChunked() && json > body.remaining()) {
            refuse("Inference-Header-Content-Length is more than the body has");
        }
        m_model->requireRoom();  // before the body is asked for
        m_http->expectBody(body.isChunked() ? m_http->limits().body : body.remaining());
        readJson();
    });
}

void InferExchange::readJson() {
    const auto done = [self = shared_from_this()](const boost::system::error_code& error) {
        if (error) return self->fail(error);
        self->attempt([&] { self->onJson(); });
    };
    const auto charge = [this](size_t bytes) { return m_textMemory.grow(bytes); };
    if (!m_jsonBytes) return m_http->body().readAll(m_json, m_http->limits().json, charge, done);
    m_http->body().readText(m_json, *m_jsonBytes, charge, done);
}

void InferExchange::onJson() {
    const InferBody body = InferBody::parse(m_json);
    m_json = {};
    m_textMemory.clear();
    m_reply.emplace(body, m_model->description());
    m_wish = {.begun = m_begun, .timeout = body.timeout, .priority = body.priority};
    requireRest(body);
    m_inference = Inference::admit(m_model);
    for (const auto& each : body.inputs) claim(each);
    readTensors(0);
}

// That the body is as long as its tensors say, before a slot is spent on it.
void InferExchange::requireRest(const InferBody& body) const {
    uint64_t bytes = 0;
    for (const auto& each : body.inputs) {
        if (!each.rawBytes) continue;
        if (!m_jsonBytes) refuse("raw data needs the header Inference-Header-Content-Length");
        bytes += *each.rawBytes;
    }
    const HttpBody& rest = m_http->body();
    if (rest.isChunked()) return m_http->expectBody(bytes);
    if (rest.remaining() != bytes) {
        refuse("behind the JSON part are " + std::to_string(rest.remaining()) +
               " bytes, and the raw inputs have " + std::to_string(bytes));
    }
}

void InferExchange::claim(const InferBody::Input& input) {
    TensorClaim wanted{input.name, input.datatype, input.shape, input.rawBytes.value_or(0)};
    if (input.rawBytes) {
        m_raw.push_back(m_inference->claimInput(wanted));
        return;
    }
    const auto type = findDatatype(input.datatype);
    if (!type) refuse("there is no datatype '" + input.datatype + "'");
    const std::string bytes = readJsonTensor(input.data, input.name, *type, input.shape);
    wanted.bytes = bytes.size();
    std::memcpy(m_inference->claimInput(wanted).data(), bytes.data(), bytes.size());
}

void InferExchange::readTensors(size_t next) {
    const auto done = [self = shared_from_this(), next](const boost::system::error_code& error) {
        if (error) return self->fail(error);
        if (next == self->m_raw.size()) return self->attempt([&] { self->run(); });
        self->readTensors(next + 1);
    };
    if (next < m_raw.size()) return m_http->body().read(m_raw[next], done);
    m_http->body().drop(0, done);
}

void InferExchange::run() {
    m_inference->start(m_wish, [self = shared_from_this()](const TaskEnd& end) {
        self->m_http->post([self, end] { self->onEnd(end); });
    });
    m_http->awaitHangUp([inference = m_inference] { inference->cancel(); });
}

void InferExchange::onEnd(const TaskEnd& end) {
    attempt([&] {
        m_http->record().atService = end.atService;
        if (end.error != 0) throw Failure::ofKelm(end.error, end.text);
        HttpReply answer = m_reply->make(*m_inference);
        // A device has had it: no 503, which a proxy would send elsewhere.
        if (!m_textMemory.grow(answer.text.size())) throw Failure(Cause::kLost, kNoTextMemory);
        // With all that the answer needs until it is written.
        answer.owner = shared_from_this();
        m_http->reply(std::move(answer));
    });
}

}  // namespace kelm::gateway
