#include "check/schemaCheck.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <stdexcept>

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <valijson/adapters/jsoncpp_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using Json::Value;
using valijson::ValidationResults;
using valijson::adapters::JsonCppAdapter;

// How the validator describes a place whose parts have errors; it also reports each of these.
constexpr char kPartsFailed[] = "Failed to validate";

constexpr std::size_t kQuotedBytes = 60;  // of a value in a message
constexpr char kDefinitions[] = "#/definitions/";
constexpr std::size_t kRuleDepth = 3;  // in a profile: rules, adapter, rule

/// A place in a document, and the schema for it.
struct Place {
    const Value* value;
    const Value* schema;
    std::optional<RulePlace> rule;  // of a profile, if the place is in one
    std::string path;               // within the rule, else within the document
};

Value schemaDocument(const char* text) {
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Value schema;
    if (!reader->parse(text, text + std::char_traits<char>::length(text), &schema, nullptr)) {
        throw std::logic_error("the schema is not a JSON document");
    }
    return schema;
}

/// The schema itself: follows "$ref" and an "allOf" of one part.
const Value& resolved(const Value& schema, const Value& root) {
    if (schema.isMember("allOf")) {
        return resolved(schema["allOf"][0U], root);
    }
    if (!schema.isMember("$ref")) {
        return schema;
    }
    const std::string name = schema["$ref"].asString().substr(sizeof(kDefinitions) - 1);
    return resolved(root["definitions"][name], root);
}

const Value& schemaOfMember(const Value& schema, const std::string& name, const Value& root) {
    const Value& own = schema["properties"];
    return resolved(own.isMember(name) ? own[name] : schema["additionalProperties"], root);
}

/// Follows the validator's path: "<root>", "[rules]", "[eth0]", "[3]".
Place placeOf(const Value& document, const Value& root, const std::vector<std::string>& context) {
    const auto nameAt = [&context](std::size_t i) {
        return context[i].substr(1, context[i].size() - 2);
    };
    Place place{&document, &resolved(root, root), std::nullopt, ""};
    for (std::size_t i = 1; i < context.size(); ++i) {
        const std::string part = nameAt(i);
        if (!place.value->isArray()) {
            place.value = &(*place.value)[part];
            place.schema = &schemaOfMember(*place.schema, part, root);
            place.path = memberPath(place.path, part);
            continue;
        }
        const auto index = static_cast<Json::ArrayIndex>(std::stoul(part));
        place.value = &(*place.value)[index];
        place.schema = &resolved((*place.schema)["items"], root);
        if (i == kRuleDepth && nameAt(1) == "rules") {
            place.rule = RulePlace{nameAt(2), index + 1};
            place.path.clear();
        } else {
            place.path = elementPath(place.path, index);
        }
    }
    return place;
}

// ---- Words --------------------------------------------------------------------------------------

/// A value as in the document, shortened if it is long.
std::string quoted(const Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    std::string text = Json::writeString(builder, value);
    if (text.size() > kQuotedBytes) {
        text.resize(kQuotedBytes);
        text += "...";
    }
    return text;
}

std::string nameOfType(const std::string& type) {
    if (type == "string") {
        return "a string";
    }
    if (type == "null") {
        return "null";
    }
    if (type == "boolean") {
        return "true or false";
    }
    if (type == "integer") {
        return "a whole number";
    }
    return type == "array" || type == "object" ? "an " + type : "a " + type;
}

std::string typesOf(const Value& schema) {
    const Value& type = schema["type"];
    std::vector<std::string> names;
    if (type.isString()) {
        names.push_back(nameOfType(type.asString()));
    }
    for (const Value& one : type.isArray() ? type : Value(Json::arrayValue)) {
        names.push_back(nameOfType(one.asString()));
    }
    return boost::join(names, " or ");
}

std::string kindOf(const Value& value) {
    if (value.isArray()) {
        return "an array";
    }
    return value.isObject() ? "an object" : quoted(value);
}

std::string valuesOf(const Value& list) {
    std::vector<std::string> texts;
    for (const Value& value : list) {
        texts.push_back(quoted(value));
    }
    return boost::join(texts, ", ");
}

bool nullAllowed(const Value& schema) {
    const Value& type = schema["type"];
    return std::any_of(type.begin(), type.end(),
                       [](const Value& one) { return one.asString() == "null"; });
}

std::string emptyText(const Value& schema) {
    return nullAllowed(schema) ? "must not be empty; use null for none" : "must not be empty";
}

/// The text between the outermost single quotes of the validator's description.
std::string nameIn(const std::string& description) {
    const std::size_t end = description.rfind('\'');
    const std::size_t start = description.find('\'');
    return end > start ? description.substr(start + 1, end - start - 1) : std::string();
}

// ---- Findings -----------------------------------------------------------------------------------

/// One finding for each member that the schema does not know. The validator names only the first.
void addUnknownMembers(const Place& place, Findings& findings) {
    const Value& known = (*place.schema)["properties"];
    for (const std::string& name : place.value->getMemberNames()) {
        if (known.isMember(name)) {
            continue;
        }
        const std::string meant = nearest(name, known.getMemberNames());
        findings.error(place.rule, memberPath(place.path, name),
                       "unknown member" + didYouMean(meant));
    }
}

/// The hint for a number that is written as a text: "1" for 1. All enumerations are of numbers, of
/// which none is a misspelling of another.
std::string meantNumber(const Value& value, const Value& list) {
    const bool meant =
        value.isString() && std::any_of(list.begin(), list.end(), [&](const Value& one) {
            return quoted(one) == value.asString();
        });
    return meant ? "; did you mean " + value.asString() + " without quotes?" : std::string();
}

std::string textOf(const Place& place, const std::string& description) {
    const Value& schema = *place.schema;
    using boost::contains;
    if (contains(description, "'type' constraint")) {
        return "must be " + typesOf(schema) + ", not " + kindOf(*place.value);
    }
    if (contains(description, "enum values")) {
        return quoted(*place.value) + " is not one of " + valuesOf(schema["enum"]) +
               meantNumber(*place.value, schema["enum"]);
    }
    if (contains(description, "'const' constraint")) {
        return "must be " + quoted(schema["const"]) + ", not " + quoted(*place.value);
    }
    if (contains(description, "no fewer than")) {
        return emptyText(schema);
    }
    if (contains(description, "uniqueness constraint")) {
        return "contains the same text twice";
    }
    if (contains(description, "greater than or equal to")) {
        return quoted(*place.value) + " is below " + quoted(schema["minimum"]);
    }
    if (contains(description, "less than or equal to")) {
        return quoted(*place.value) + " is above " + quoted(schema["maximum"]);
    }
    return description;
}

void addFinding(const Place& place, const std::string& description, Findings& findings) {
    if (boost::starts_with(description, "Missing required property")) {
        findings.error(place.rule, place.path, inQuotes(nameIn(description)) + " is missing");
    } else if (boost::starts_with(description, "Object contains a property")) {
        addUnknownMembers(place, findings);
    } else {
        findings.error(place.rule, place.path, textOf(place, description));
    }
}

}  // namespace

std::vector<Finding> checkSchema(const Json::Value& document, const char* schema) {
    const Value root = schemaDocument(schema);
    valijson::Schema compiled;
    valijson::SchemaParser().populateSchema(JsonCppAdapter(root), compiled);
    ValidationResults results;
    valijson::Validator validator(valijson::Validator::kStrongTypes);
    (void)validator.validate(compiled, JsonCppAdapter(document), &results);

    Findings findings;
    for (const ValidationResults::Error& error : results) {
        if (!boost::starts_with(error.description, kPartsFailed)) {
            addFinding(placeOf(document, root, error.context), error.description, findings);
        }
    }
    return findings.take();
}

}  // namespace tarnfw
