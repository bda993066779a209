#include "platform/simulated/StrictJson.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace selvio::strictjson {
namespace {

using nlohmann::json;

constexpr std::size_t kLargestFile = 4u << 20;

bool isNumberWithin(const json& value, double low, double high) {
    return value.is_number() && value.get<double>() >= low && value.get<double>() <= high;
}

std::string shortNumber(double value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

/// What follows "[json.exception.parse_error.101] ".
std::string reasonOf(const json::exception& exception) {
    const std::string_view text(exception.what());
    return std::string(text.substr(text.find(' ') + 1));
}

/// As `json::parse`, but a key given twice in one object is a mistake, and every one names its line.
json parsed(std::string_view text) {
    std::istringstream stream{std::string(text)};
    const auto line = [&] {
        const auto taken = stream.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in);
        return "line " + std::to_string(1 + std::count(text.begin(), text.begin() + taken, '\n')) + ": ";
    };
    std::vector<std::set<std::string>> keysOfOpenObjects;
    const auto refuseDuplicates = [&](int, json::parse_event_t event, const json& value) {
        if (event == json::parse_event_t::object_start) keysOfOpenObjects.emplace_back();
        if (event == json::parse_event_t::object_end) keysOfOpenObjects.pop_back();
        if (event == json::parse_event_t::key && !keysOfOpenObjects.back().insert(value).second)
            throw Mistake(line() + "the field " + value.dump() + " is given twice in one object");
        return true;
    };
    try {
        return json::parse(stream, refuseDuplicates);
    } catch (const json::parse_error& error) {
        throw Mistake(reasonOf(error));  // with its line and column
    } catch (const json::exception& error) {
        throw Mistake(line() + reasonOf(error));
    }
}

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

std::optional<Error> read(std::string_view text, const std::string& source,
                          const std::function<void(ObjectReader&)>& take) {
    try {
        const json document = parsed(text);
        ObjectReader reader(document, "");
        take(reader);
        reader.finish();
        return std::nullopt;
    } catch (const Mistake& mistake) {
        return Error{source + ": " + mistake.what()};
    }
}

ObjectReader::ObjectReader(const json& value, std::string path) : value_(value), path_(std::move(path)) {
    if (!value_.is_object()) throw Mistake((path_.empty() ? "the file" : path_) + " must be an object");
}

std::string ObjectReader::pathOf(const std::string& field) const {
    return path_.empty() ? field : path_ + "." + field;
}

void ObjectReader::fail(const std::string& field, const std::string& reason) const {
    throw Mistake(pathOf(field) + " " + reason);
}

const json* ObjectReader::field(const std::string& name) {
    taken_.insert(name);
    const auto found = value_.find(name);
    return found == value_.end() ? nullptr : &*found;
}

void ObjectReader::require(const std::string& name) {
    if (!field(name)) fail(name, "is missing");
}

std::optional<double> ObjectReader::number(const std::string& name, double low, double high) {
    const json* const value = field(name);
    if (!value) return std::nullopt;
    if (isNumberWithin(*value, low, high)) return value->get<double>();
    fail(name, "must be a number from " + shortNumber(low) + " to " + shortNumber(high));
}

std::optional<std::int64_t> ObjectReader::integer(const std::string& name, std::int64_t low, std::int64_t high) {
    const json* const value = field(name);
    if (!value) return std::nullopt;
    if (value->is_number_integer() && isNumberWithin(*value, static_cast<double>(low), static_cast<double>(high)))
        return value->get<std::int64_t>();
    fail(name, "must be a whole number from " + std::to_string(low) + " to " + std::to_string(high));
}

std::optional<bool> ObjectReader::boolean(const std::string& name) {
    const json* const value = field(name);
    if (!value) return std::nullopt;
    if (value->is_boolean()) return value->get<bool>();
    fail(name, "must be true or false");
}

std::optional<std::vector<double>> ObjectReader::numbers(const std::string& name, std::size_t count, double low,
                                                         double high) {
    const json* const value = field(name);
    if (!value) return std::nullopt;
    const auto fits = [&](const json& item) { return isNumberWithin(item, low, high); };
    if (value->is_array() && value->size() == count && std::all_of(value->begin(), value->end(), fits))
        return value->get<std::vector<double>>();
    fail(name, "must be a list of " + std::to_string(count) + " numbers from " + shortNumber(low) + " to " +
                   shortNumber(high));
}

std::optional<Point> ObjectReader::point(const std::string& name, double low, double high) {
    const auto pair = numbers(name, 2, low, high);
    if (!pair) return std::nullopt;
    return Point{(*pair)[0], (*pair)[1]};
}

void ObjectReader::finish() const {
    for (const auto& [name, ignored] : value_.items()) {
        if (taken_.contains(name)) continue;
        std::string known;
        for (const std::string& field : taken_) known += (known.empty() ? "" : ", ") + field;
        const std::string quoted = json(name).dump();  // escapes what would break the message's line
        fail(quoted.substr(1, quoted.size() - 2), "is not a known field; known are " + known);
    }
}

}  // namespace selvio::strictjson
