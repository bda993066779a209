// JSON files written by people: every mistake is named, nothing is ignored.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/imaging/Geometry.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace selvio::strictjson {

/// The file's text; files above 4 MiB and what is not a regular file are refused.
[[nodiscard]] Expected<std::string> readText(const std::filesystem::path& path);

/// Parses; the error says "source:line:column: reason". A key given twice in one object is an error.
[[nodiscard]] Expected<nlohmann::json> parse(std::string_view text, const std::string& source);

/// Takes the fields of one object, keeps the first thing that is wrong, and at the end finds the fields that nobody
/// took.
class ObjectReader {
public:
    /// `path` names the object in messages, as "keyFrames[2]"; empty for the whole file.
    ObjectReader(const nlohmann::json& value, std::string path);

    /// The field, or null if it is absent; it then counts as taken.
    [[nodiscard]] const nlohmann::json* field(const std::string& name);
    void require(const std::string& name);
    /// Each takes a field if it is there; a wrong type or range is an error. Ranges include their ends.
    [[nodiscard]] std::optional<double> number(const std::string& name, double low, double high);
    [[nodiscard]] std::optional<std::int64_t> integer(const std::string& name, std::int64_t low, std::int64_t high);
    [[nodiscard]] std::optional<bool> boolean(const std::string& name);
    [[nodiscard]] std::optional<std::vector<double>> numbers(const std::string& name, std::size_t count, double low,
                                                             double high);
    [[nodiscard]] std::optional<Point> point(const std::string& name, double low, double high);

    void fail(const std::string& field, const std::string& reason);
    void fail(const std::optional<Error>& error);
    [[nodiscard]] std::string pathOf(const std::string& field) const;
    /// The first error; afterwards also an error for any field that was not taken.
    [[nodiscard]] std::optional<Error> finish();

private:
    const nlohmann::json& value_;
    const std::string path_;
    std::set<std::string> taken_;
    std::optional<Error> error_;
};

}  // namespace selvio::strictjson
