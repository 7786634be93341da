#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "transport/AnswerMessage.h"

namespace pointlane {

struct BrowserMessageResult;

// One message from a browser page, checked: a fixed small vocabulary of JSON objects
// {"type": ..., ...}. Whatever reaches the game server was read from one of these.
//
//   hello {tab}           the page's per-tab id; the first message of every connection
//   start {name, game}    administrator login, opening the game
//   join  {name}          player login
//   deal  {title}         put up an item
//   play  {card}          play (or change) the picked card of the current item
//   open  {}              open the cards
//   leave {}              log out (the administrator's logout ends the game)
//
// A plain value; parsing has no side effects and is safe on any thread.
struct BrowserMessage {
    enum class Type { hello, start, join, deal, play, open, leave };

    // Longest name, game name or title, in characters (Unicode code points).
    static constexpr std::size_t kMaxTextLength = 200;
    // The cards of the deck, in the order the page shows them.
    static constexpr std::array<std::string_view, 13> kDeck = {
        "0", "1/2", "1", "2", "3", "5", "8", "13", "20", "40", "100", "?", "coffee"};

    Type type = Type::hello;
    std::string tab;    // hello
    std::string name;   // start, join: trimmed
    std::string game;   // start: trimmed
    std::string title;  // deal: trimmed
    std::string card;   // play: one of kDeck

    // Reads one text frame; when it is not a message of the vocabulary, the result holds a
    // sentence saying what was wrong, fit to show to the player.
    static BrowserMessageResult parse(std::string_view text);
    // The sentence a player is shown for a refused request.
    static std::string refusalText(AnswerMessage message);
};

struct BrowserMessageResult {
    std::optional<BrowserMessage> message;
    std::string error;  // empty when message is set

    bool ok() const { return message.has_value(); }
};

}  // namespace pointlane
