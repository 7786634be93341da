#include "BrowserMessage.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace pointlane {

namespace {

BrowserMessageResult failure(std::string text) {
    return {std::nullopt, std::move(text)};
}

// Code points of valid UTF-8 text (nlohmann has already rejected invalid text).
std::size_t characterCount(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

std::string trimmed(const std::string& text) {
    const auto isSpace = [](unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
    auto begin = text.begin();
    auto end = text.end();
    while (begin != end && isSpace(static_cast<unsigned char>(*begin))) {
        ++begin;
    }
    while (end != begin && isSpace(static_cast<unsigned char>(*(end - 1)))) {
        --end;
    }
    return std::string(begin, end);
}

bool hasControlCharacters(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

// Reads a required text field; what is wrong with it, or nothing.
std::optional<std::string> readText(const nlohmann::json& object, const char* key,
                                    const std::string& label, std::string& out) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string()) {
        return "The " + label + " is missing.";
    }
    out = trimmed(found->get<std::string>());
    if (out.empty()) {
        return "Please enter a " + label + ".";
    }
    if (characterCount(out) > BrowserMessage::kMaxTextLength) {
        return "The " + label + " is too long: at most " +
               std::to_string(BrowserMessage::kMaxTextLength) + " characters.";
    }
    if (hasControlCharacters(out)) {
        return "The " + label + " can't contain control characters.";
    }
    return std::nullopt;
}

bool isTabId(const std::string& tab) {
    return tab.size() >= 16 && tab.size() <= 64 && std::all_of(tab.begin(), tab.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                      c == '-';
           });
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
    const std::string kind = type->get<std::string>();
    BrowserMessage message;
    std::optional<std::string> problem;
    if (kind == "hello") {
        message.type = Type::hello;
        const auto tab = object.find("tab");
        if (tab == object.end() || !tab->is_string() || !isTabId(tab->get<std::string>())) {
            return failure("The page did not say which tab it is.");
        }
        message.tab = tab->get<std::string>();
    } else if (kind == "start") {
        message.type = Type::start;
        problem = readText(object, "name", "name", message.name);
        if (!problem) {
            problem = readText(object, "game", "game name", message.game);
        }
    } else if (kind == "join") {
        message.type = Type::join;
        problem = readText(object, "name", "name", message.name);
    } else if (kind == "deal") {
        message.type = Type::deal;
        problem = readText(object, "title", "title", message.title);
    } else if (kind == "play") {
        message.type = Type::play;
        const auto card = object.find("card");
        if (card == object.end() || !card->is_string() ||
            std::find(kDeck.begin(), kDeck.end(), card->get<std::string>()) == kDeck.end()) {
            return failure("That card is not in the deck.");
        }
        message.card = card->get<std::string>();
    } else if (kind == "open") {
        message.type = Type::open;
    } else if (kind == "leave") {
        message.type = Type::leave;
    } else {
        return failure("The page sent a message of an unknown type.");
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
