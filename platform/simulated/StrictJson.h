// JSON files written by people: every mistake is named, nothing is ignored.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/imaging/Geometry.h>

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace selvio::strictjson {

/// What is wrong with a file's content. Never leaves `read`.
struct Mistake : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The file's text; files above 4 MiB and what is not a regular file are refused.
[[nodiscard]] Expected<std::string> readText(const std::filesystem::path& path);

/// Takes the fields of one object; throws `Mistake` at the first thing that is wrong with one.
class ObjectReader {
public:
    /// `path` names the object in messages, as "keyFrames[2]"; empty for the whole file.
    ObjectReader(const nlohmann::json& value, std::string path);

    /// The field, or null if it is absent; it then counts as taken.
    [[nodiscard]] const nlohmann::json* field(const std::string& name);
    void require(const std::string& name);
    /// Each takes a field if it is there; a wrong type or range is a mistake. Ranges include their ends.
    [[nodiscard]] std::optional<double> number(const std::string& name, double low, double high);
    [[nodiscard]] std::optional<std::int64_t> integer(const std::string& name, std::int64_t low, std::int64_t high);
    [[nodiscard]] std::optional<bool> boolean(const std::string& name);
    [[nodiscard]] std::optional<std::vector<double>> numbers(const std::string& name, std::size_t count, double low,
                                                             double high);
    [[nodiscard]] std::optional<Point> point(const std::string& name, double low, double high);

    [[noreturn]] void fail(const std::string& field, const std::string& reason) const;
    [[nodiscard]] std::string pathOf(const std::string& field) const;
    /// To be called last: a field that was not taken is a mistake.
    void finish() const;

private:
    const nlohmann::json& value_;
    const std::string path_;
    std::set<std::string> taken_;
};

/// Parses the text, which holds one object, and hands it to `take`. The first mistake, the parser's or a thrown one, is
/// returned as "source: reason", the parser's with the line. A key given twice in one object is a mistake.
[[nodiscard]] std::optional<Error> read(std::string_view text, const std::string& source,
                                        const std::function<void(ObjectReader&)>& take);

}  // namespace selvio::strictjson
