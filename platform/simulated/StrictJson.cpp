#include "platform/simulated/StrictJson.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace selvio::strictjson {
namespace {

using nlohmann::json;

constexpr std::size_t kLargestFile = 4u << 20;

std::string shortNumber(double value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

std::string placeOf(std::string_view text, std::size_t byte) {
    const std::string_view before = text.substr(0, std::min(byte, text.size()));
    const auto line = std::count(before.begin(), before.end(), '\n') + 1;
    const auto lineStart = before.rfind('\n');
    const auto column = lineStart == std::string_view::npos ? before.size() : before.size() - lineStart - 1;
    return std::to_string(line) + ":" + std::to_string(column);
}

// "[json.exception.parse_error.101] parse error at line 1, column 2: reason" without what the place already says.
std::string reasonOf(const json::exception& exception) {
    std::string reason = exception.what();
    if (const auto end = reason.find("] "); end != std::string::npos) reason = reason.substr(end + 2);
    if (const auto end = reason.find(": "); reason.starts_with("parse error") && end != std::string::npos)
        reason = reason.substr(end + 2);
    return reason;
}

// Remembers the keys of each object that is still open.
class DuplicateKeys {
public:
    bool operator()(int, json::parse_event_t event, json& parsed) {
        switch (event) {
            case json::parse_event_t::object_start:
                open_.emplace_back();
                break;
            case json::parse_event_t::object_end:
                open_.pop_back();
                break;
            case json::parse_event_t::key:
                if (!open_.back().insert(parsed.get<std::string>()).second && !duplicate)
                    duplicate = parsed.get<std::string>();
                break;
            default:
                break;
        }
        return true;
    }

    std::optional<std::string> duplicate;

private:
    std::vector<std::set<std::string>> open_;
};

}  // namespace

Expected<std::string> readText(const std::filesystem::path& path) {
    std::error_code ignored;
    if (std::filesystem::exists(path, ignored) && !std::filesystem::is_regular_file(path, ignored)) {
        return Error{path.string() + ": is not a regular file"};  // reading from a pipe might never end
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) return Error{path.string() + ": cannot be opened"};
    std::string text(kLargestFile + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (file.bad()) return Error{path.string() + ": cannot be read"};
    if (text.size() > kLargestFile) return Error{path.string() + ": is larger than 4 MiB"};
    return text;
}

Expected<json> parse(std::string_view text, const std::string& source) {
    DuplicateKeys keys;
    try {
        json value = json::parse(text.begin(), text.end(), std::ref(keys));
        if (keys.duplicate)
            return Error{source + ": the field \"" + *keys.duplicate + "\" is given twice in one object"};
        return value;
    } catch (const json::parse_error& error) {
        return Error{source + ":" + placeOf(text, error.byte) + ": " + reasonOf(error)};
    } catch (const json::exception& error) {
        return Error{source + ": " + reasonOf(error)};
    }
}

ObjectReader::ObjectReader(const json& value, std::string path) : value_(value), path_(std::move(path)) {
    if (!value_.is_object()) error_ = Error{(path_.empty() ? std::string("the file") : path_) + " must be an object"};
}

std::string ObjectReader::pathOf(const std::string& field) const {
    return path_.empty() ? field : path_ + "." + field;
}

void ObjectReader::fail(const std::string& field, const std::string& reason) {
    if (!error_) error_ = Error{pathOf(field) + " " + reason};
}

void ObjectReader::fail(const std::optional<Error>& error) {
    if (!error_) error_ = error;
}

const json* ObjectReader::field(const std::string& name) {
    taken_.insert(name);
    if (!value_.is_object()) return nullptr;
    const auto found = value_.find(name);
    return found == value_.end() ? nullptr : &*found;
}

void ObjectReader::require(const std::string& name) {
    if (field(name) == nullptr) fail(name, "is missing");
}

std::optional<double> ObjectReader::number(const std::string& name, double low, double high) {
    const json* const value = field(name);
    if (value == nullptr) return std::nullopt;
    if (value->is_number() && value->get<double>() >= low && value->get<double>() <= high) return value->get<double>();
    fail(name, "must be a number from " + shortNumber(low) + " to " + shortNumber(high));
    return std::nullopt;
}

std::optional<std::int64_t> ObjectReader::integer(const std::string& name, std::int64_t low, std::int64_t high) {
    const json* const value = field(name);
    if (value == nullptr) return std::nullopt;
    if (value->is_number_integer() && value->get<double>() >= static_cast<double>(low) &&
        value->get<double>() <= static_cast<double>(high)) {
        return value->get<std::int64_t>();
    }
    fail(name, "must be a whole number from " + std::to_string(low) + " to " + std::to_string(high));
    return std::nullopt;
}

std::optional<bool> ObjectReader::boolean(const std::string& name) {
    const json* const value = field(name);
    if (value == nullptr) return std::nullopt;
    if (value->is_boolean()) return value->get<bool>();
    fail(name, "must be true or false");
    return std::nullopt;
}

std::optional<std::vector<double>> ObjectReader::numbers(const std::string& name, std::size_t count, double low,
                                                         double high) {
    const json* const value = field(name);
    if (value == nullptr) return std::nullopt;
    std::vector<double> result;
    if (value->is_array() && value->size() == count) {
        for (const json& item : *value) {
            if (item.is_number() && item.get<double>() >= low && item.get<double>() <= high)
                result.push_back(item.get<double>());
        }
        if (result.size() == count) return result;
    }
    fail(name, "must be a list of " + std::to_string(count) + " numbers from " + shortNumber(low) + " to " +
                   shortNumber(high));
    return std::nullopt;
}

std::optional<Point> ObjectReader::point(const std::string& name, double low, double high) {
    const auto pair = numbers(name, 2, low, high);
    if (!pair) return std::nullopt;
    return Point{(*pair)[0], (*pair)[1]};
}

std::optional<Error> ObjectReader::finish() {
    if (!error_) {
        for (const auto& [name, ignored] : value_.items()) {
            if (taken_.contains(name)) continue;
            std::string known;
            for (const std::string& field : taken_) known += (known.empty() ? "" : ", ") + field;
            fail(name, "is not a known field; known are " + known);
        }
    }
    return error_;
}

}  // namespace selvio::strictjson
