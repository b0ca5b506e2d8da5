#include "tools/gateway/StrictJson.h"

#include <string>
#include <utility>
#include <vector>

#include "tools/gateway/Failure.h"
#include "tools/gateway/RequestRules.h"

namespace kelm::gateway {

namespace {

using nlohmann::json;
constexpr size_t kMaxNesting = 16;

// The parser's words without its numbers and class.
std::string plainText(const std::string& text) {
    const size_t end = text.find("] ");
    return end == std::string::npos ? text : text.substr(end + 2);
}

// Makes the value in one pass. A callback of json::parse() would cost the square of an array's
// length: the library goes through what there is of it at the end of each element.
class StrictBuilder {
 public:
    json root;

    // Called by the parser.
    bool null() { return add(nullptr); }
    bool boolean(bool value) { return add(value); }
    bool number_integer(int64_t value) { return add(value); }
    bool number_unsigned(uint64_t value) { return add(value); }
    bool number_float(double value, const std::string&) { return add(value); }
    bool string(std::string& value) { return add(std::move(value)); }
    bool binary(json::binary_t&) { return false; }  // JSON has none
    bool start_object(size_t) { return open(json::object()); }
    bool start_array(size_t) { return open(json::array()); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }
    bool key(std::string& name) {
        const auto [member, isNew] = m_open.back()->emplace(name, nullptr);
        if (!isNew) refuse("the JSON has '" + name + "' twice");
        m_member = &*member;
        return true;
    }
    [[noreturn]] static bool parse_error(size_t, const std::string&, const json::exception& error) {
        refuse("this is no JSON: " + plainText(error.what()));
    }

 private:
    // Where the next value goes; only the innermost container grows, so pointers to others hold.
    json& place() {
        if (m_open.empty()) return root;
        json& parent = *m_open.back();
        return parent.is_array() ? parent.emplace_back() : *m_member;
    }
    bool add(json value) {
        place() = std::move(value);
        return true;
    }
    bool open(json container) {
        if (m_open.size() == kMaxNesting) refuse("the JSON is nested too deep");
        m_open.push_back(&(place() = std::move(container)));
        return true;
    }
    bool close() {
        m_open.pop_back();
        return true;
    }

    std::vector<json*> m_open;  // the outermost first
    json* m_member = nullptr;   // of the innermost
};

}  // namespace

json parseStrictJson(std::string_view text) {
    StrictBuilder builder;
    (void)json::sax_parse(text.begin(), text.end(), &builder);
    return std::move(builder.root);
}

std::vector<int64_t> readShape(const json& value, bool (*isAllowed)(int64_t dimension),
                               const char* rule) {
    if (!value.is_array() || value.size() > kMostDimensions) {
        throw Failure(Cause::kInvalid, "'shape' must be an array of at most " +
                                           std::to_string(kMostDimensions) + " whole numbers");
    }
    std::vector<int64_t> shape;
    for (const json& each : value) {
        // First the size: a larger number could become any.
        const bool isInRange = each.is_number_integer() && each <= kMostBytes;
        if (!isInRange || !isAllowed(each.get<int64_t>())) throw Failure(Cause::kInvalid, rule);
        shape.push_back(each.get<int64_t>());
    }
    return shape;
}

}  // namespace kelm::gateway
