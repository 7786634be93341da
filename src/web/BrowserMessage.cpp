#include "BrowserMessage.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "rules/TextRules.h"

namespace pointlane {

namespace {

// The longest card text a page may send; the deck decides what it may be.
constexpr std::size_t kMaxCardBytes = 64;
// More cards than a deck may hold are refused by the deck; this keeps a page from sending
// thousands of them.
constexpr std::size_t kMaxSentCards = 64;
constexpr int kMaxCountdownSeconds = 3600;

BrowserMessageResult failure(std::string text) {
    return {std::nullopt, std::move(text)};
}

// Reads a required name-like text field and checks it with the text rules; what is wrong
// with it, or nothing.
std::optional<std::string> readName(const nlohmann::json& object, const char* key,
                                    std::string_view label, std::string& out) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string()) {
        return "The " + std::string(label) + " is missing.";
    }
    out = found->get<std::string>();
    return checkName(out, label);
}

std::optional<std::string> readString(const nlohmann::json& object, const char* key,
                                      std::size_t maxBytes, std::string& out) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string()) {
        return std::string("The page's message is incomplete.");
    }
    out = found->get<std::string>();
    if (out.size() > maxBytes) {
        return std::string("The page's message is too long.");
    }
    return std::nullopt;
}

bool readBool(const nlohmann::json& object, const char* key, bool& out) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_boolean()) {
        return false;
    }
    out = found->get<bool>();
    return true;
}

bool readInt(const nlohmann::json& object, const char* key, int low, int high, int& out) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_number_integer()) {
        return false;
    }
    const auto value = found->get<std::int64_t>();
    if (value < low || value > high) {
        return false;
    }
    out = static_cast<int>(value);
    return true;
}

bool isSeatKey(const std::string& seat) {
    return seat.size() >= 16 && seat.size() <= 64 &&
           std::all_of(seat.begin(), seat.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                      c == '-';
           });
}

const std::map<std::string, BrowserMessage::Type>& types() {
    using Type = BrowserMessage::Type;
    static const std::map<std::string, Type> all = {
        {"hello", Type::hello},       {"watch", Type::watch},         {"ping", Type::ping},
        {"start", Type::start},       {"join", Type::join},           {"deal", Type::deal},
        {"next", Type::next},         {"revote", Type::revote},       {"play", Type::play},
        {"open", Type::open},         {"estimate", Type::estimate},   {"agenda", Type::agenda},
        {"settings", Type::settings}, {"countdown", Type::countdown}, {"leave", Type::leave}};
    return all;
}

}  // namespace

BrowserMessageResult BrowserMessage::parse(std::string_view text) {
    const nlohmann::json object = nlohmann::json::parse(text, nullptr, false);
    if (object.is_discarded() || !object.is_object()) {
        return failure("The page sent something that is not a message.");
    }
    const auto type = object.find("type");
    if (type == object.end() || !type->is_string()) {
        return failure("The page sent a message without a type.");
    }
    const auto kind = types().find(type->get<std::string>());
    if (kind == types().end()) {
        return failure("The page sent a message of an unknown type.");
    }
    BrowserMessage message;
    message.type = kind->second;
    std::optional<std::string> problem;
    switch (message.type) {
        case Type::hello: {
            const auto seat = object.find("seat");
            if (seat == object.end() || !seat->is_string() ||
                !isSeatKey(seat->get<std::string>())) {
                return failure("The page did not say which seat it is.");
            }
            message.seat = seat->get<std::string>();
            break;
        }
        case Type::start: {
            problem = readName(object, "name", "name", message.name);
            if (!problem) {
                problem = readName(object, "game", "game name", message.game);
            }
            if (!problem) {
                problem = readString(object, "deck", 32, message.deck);
            }
            if (!problem && message.deck == "custom") {
                const auto cards = object.find("cards");
                if (cards == object.end() || !cards->is_array() || cards->size() > kMaxSentCards) {
                    return failure("The deck's cards are missing.");
                }
                for (const auto& card : *cards) {
                    if (!card.is_string() || card.get<std::string>().size() > kMaxCardBytes) {
                        return failure("The deck's cards are missing.");
                    }
                    message.cards.push_back(card.get<std::string>());
                }
            }
            break;
        }
        case Type::join:
            problem = readName(object, "name", "name", message.name);
            break;
        case Type::deal:
            problem = readName(object, "title", "title", message.title);
            break;
        case Type::play:
            problem = readString(object, "card", kMaxCardBytes, message.card);
            break;
        case Type::estimate:
            problem = readString(object, "card", kMaxCardBytes, message.card);
            if (!problem && !readInt(object, "item", 1, 1 << 30, message.item)) {
                problem = "The page's message is incomplete.";
            }
            break;
        case Type::agenda: {
            problem = readString(object, "text", kMaxAgendaBytes, message.text);
            std::string format;
            if (!problem) {
                problem = readString(object, "format", 8, format);
            }
            if (!problem && format != "lines" && format != "csv") {
                problem = "The agenda's format is unknown.";
            }
            message.csv = format == "csv";
            if (problem && problem->find("too long") != std::string::npos) {
                problem = "The agenda is too long: at most 60 KB.";
            }
            break;
        }
        case Type::settings:
            if (!readBool(object, "autoReveal", message.autoReveal) ||
                !readBool(object, "everyoneControls", message.everyoneControls)) {
                problem = "The page's message is incomplete.";
            }
            break;
        case Type::countdown:
            if (!readInt(object, "seconds", 0, kMaxCountdownSeconds, message.seconds)) {
                problem = "A countdown lasts from 1 second to an hour.";
            }
            break;
        case Type::watch:
        case Type::ping:
        case Type::next:
        case Type::revote:
        case Type::open:
        case Type::leave:
            break;
    }
    if (problem) {
        return failure(*problem);
    }
    return {message, {}};
}

std::string BrowserMessage::refusalText(AnswerMessage message) {
    switch (message) {
        case AnswerMessage::limitExceeded:
            return "Five players are already at the table.";
        case AnswerMessage::adminAlreadyLoggenIn:
            return "A game has already been started: join it instead.";
        case AnswerMessage::adminNotLoggedIn:
            return "No game has been started yet: start one instead.";
        case AnswerMessage::userNameAlreadyInUse:
            return "That name is taken.";
        case AnswerMessage::invalidData:
            return "The game server could not read that request.";
        case AnswerMessage::cantConnectToClientServer:
            return "The game server could not reach the web table.";
        case AnswerMessage::invalidToken:
            return "Your seat at the table is no longer valid.";
        default:
            return "The game server refused that request.";
    }
}

}  // namespace pointlane
