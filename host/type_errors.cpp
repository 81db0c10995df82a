#include "type_errors.h"

#include <exception>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace tarvo {
namespace host {

namespace {

enum class Wanted { kInt, kUInt, kInt64, kUInt64, kReal, kBool, kString, kArray, kObject };

struct Conversion {
    Wanted wanted;
    bool outOfRange;  // the value was a number, but too large for the type
};

bool Contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

// The conversion that JsonCpp's message names; nullopt for any other message.
std::optional<Conversion> ParseConversion(const std::string& what) {
    const bool range = Contains(what, "out of");
    // The longer names first: "Int" is part of "UInt64".
    if (Contains(what, "to UInt64.") || Contains(what, "out of UInt64 range"))
        return Conversion{Wanted::kUInt64, range};
    if (Contains(what, "to Int64.") || Contains(what, "out of Int64 range"))
        return Conversion{Wanted::kInt64, range};
    if (Contains(what, "to UInt.") || Contains(what, "out of UInt range"))
        return Conversion{Wanted::kUInt, range};
    if (Contains(what, "to Int.") || Contains(what, "out of Int range"))
        return Conversion{Wanted::kInt, range};
    if (Contains(what, "to double.") || Contains(what, "to float.")) return Conversion{Wanted::kReal, false};
    if (Contains(what, "to bool.")) return Conversion{Wanted::kBool, false};
    if (Contains(what, "convertible to string") || Contains(what, "requires stringValue"))
        return Conversion{Wanted::kString, false};
    if (Contains(what, "requires arrayValue")) return Conversion{Wanted::kArray, false};
    if (Contains(what, "requires objectValue")) return Conversion{Wanted::kObject, false};
    return std::nullopt;
}

template <typename T>
std::string Range() {
    return "a number from " + std::to_string(std::numeric_limits<T>::min()) + " to " +
           std::to_string(std::numeric_limits<T>::max());
}

std::string WantedText(Wanted wanted, bool range) {
    switch (wanted) {
        case Wanted::kInt:
            return range ? Range<int>() : "a number";
        case Wanted::kUInt:
            return range ? Range<unsigned>() : "a number";
        case Wanted::kInt64:
            return range ? Range<long long>() : "a number";
        case Wanted::kUInt64:
            return range ? Range<unsigned long long>() : "a number";
        case Wanted::kReal:
            return "a number";
        case Wanted::kBool:
            return "true or false";
        case Wanted::kString:
            return "a string";
        case Wanted::kArray:
            return "an array";
        case Wanted::kObject:
            return "an object";
    }
    return "another type";
}

// Whether JsonCpp converts `value` to `wanted` without throwing.
bool Converts(const Json::Value& value, Wanted wanted) {
    if (value.isNull() || value.isBool()) return wanted != Wanted::kArray && wanted != Wanted::kObject;
    switch (wanted) {
        case Wanted::kInt:
            return value.isConvertibleTo(Json::intValue);
        case Wanted::kUInt:
            return value.isConvertibleTo(Json::uintValue);
        case Wanted::kInt64:
            return value.isInt64() || (value.isDouble() && value.asDouble() >= -9.2233720368547758e18 &&
                                       value.asDouble() < 9.2233720368547758e18);
        case Wanted::kUInt64:
            return value.isUInt64() ||
                   (value.isDouble() && value.asDouble() >= 0 && value.asDouble() < 1.8446744073709552e19);
        case Wanted::kReal:
        case Wanted::kBool:
            return value.isNumeric();
        case Wanted::kString:
            return value.isString() || value.isNumeric();
        case Wanted::kArray:
            return value.isArray();
        case Wanted::kObject:
            return value.isObject();
    }
    return true;
}

// A string that holds what was wanted, written as text ("true", "12"): the likeliest mistake.
bool LooksLikeWanted(const Json::Value& value, Wanted wanted) {
    if (!value.isString()) return false;
    const std::string text = value.asString();
    if (wanted == Wanted::kBool) {
        return text == "true" || text == "false" || text == "yes" || text == "no" || text == "0" ||
               text == "1";
    }
    if (wanted == Wanted::kString || wanted == Wanted::kArray || wanted == Wanted::kObject) return false;
    size_t used = 0;
    try {
        std::stod(text, &used);
    } catch (const std::exception&) {
        return false;
    }
    return used == text.size();
}

struct Candidate {
    std::string path;
    const Json::Value* value;
};

// Values that JsonCpp cannot convert to `wanted`, where the module may have read one.
// Scalar conversions look at every value, lookups by key at array elements (the request
// itself is an object), and indexing at objects.
void Collect(const Json::Value& value, const std::string& path, bool in_array, Wanted wanted,
             std::vector<Candidate>& out) {
    const bool root = path.empty();
    const bool scalar_wanted = wanted != Wanted::kObject && wanted != Wanted::kArray;
    bool wrong = false;
    if (!root) {
        if (wanted == Wanted::kObject) {
            wrong = in_array && !value.isObject() && !value.isNull();
        } else if (wanted == Wanted::kArray) {
            wrong = value.isObject();
        } else {
            // Every module reads "method" as a string.
            wrong = !Converts(value, wanted) && !(path == "method" && value.isString());
        }
    }
    if (wrong) out.push_back({path, &value});
    // A wrong container may still hold the wrong scalar ("agreements" for a boolean).
    if (wrong && !scalar_wanted) return;
    if (value.isArray()) {
        for (Json::ArrayIndex i = 0; i < value.size(); ++i)
            Collect(value[i], path + "[" + std::to_string(i) + "]", true, wanted, out);
    } else if (value.isObject()) {
        for (auto it = value.begin(); it != value.end(); ++it)
            Collect(*it, root ? it.name() : path + "." + it.name(), false, wanted, out);
    }
}

// The candidates that are the likeliest: strings that hold what was wanted as text, numbers
// out of range; else scalars over containers; else all.
std::vector<Candidate> Likeliest(const std::vector<Candidate>& candidates, const Conversion& conversion) {
    std::vector<Candidate> likely;
    std::vector<Candidate> scalars;
    for (const Candidate& candidate : candidates) {
        const Json::Value& value = *candidate.value;
        if (LooksLikeWanted(value, conversion.wanted) || (conversion.outOfRange && value.isNumeric()))
            likely.push_back(candidate);
        if (!value.isArray() && !value.isObject()) scalars.push_back(candidate);
    }
    if (likely.size() == 1) return likely;
    return scalars.empty() ? candidates : scalars;
}

// Numbers by their value, everything else by its type.
std::string GotText(const Json::Value& value) {
    if (!value.isNumeric()) return DescribeType(value);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace

std::string DescribeType(const Json::Value& value) {
    switch (value.type()) {
        case Json::nullValue:
            return "null";
        case Json::intValue:
        case Json::uintValue:
        case Json::realValue:
            return "a number";
        case Json::stringValue:
            return "a string";
        case Json::booleanValue:
            return value.asBool() ? "true" : "false";
        case Json::arrayValue:
            return "an array";
        case Json::objectValue:
            return "an object";
    }
    return "a value";
}

std::string WrongMember(const std::string& name, const std::string& want, const Json::Value& got) {
    return "member \"" + name + "\" must be " + want + ", got " + GotText(got);
}

std::string DescribeConversionFailure(const Json::Value& request, const std::string& what) {
    const auto conversion = ParseConversion(what);
    if (!conversion) return "the module could not read the request (" + what + ")";

    std::vector<Candidate> candidates;
    Collect(request, "", false, conversion->wanted, candidates);
    candidates = Likeliest(candidates, *conversion);

    const std::string want = WantedText(conversion->wanted, conversion->outOfRange);
    if (candidates.empty()) return "a member of the request must be " + want + ", but has another type";
    if (candidates.size() == 1) {
        return "member \"" + candidates[0].path + "\" must be " + want + ", got " +
               GotText(*candidates[0].value);
    }
    constexpr size_t kNamed = 4;
    std::string names;
    for (size_t i = 0; i < candidates.size() && i < kNamed; ++i) {
        if (i > 0) names += ", ";
        names += "\"" + candidates[i].path + "\" (" + GotText(*candidates[i].value) + ")";
    }
    if (candidates.size() > kNamed) names += " and " + std::to_string(candidates.size() - kNamed) + " more";
    return "one of the members " + names + " must be " + want;
}

}  // namespace host
}  // namespace tarvo
