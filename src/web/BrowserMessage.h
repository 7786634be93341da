#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "transport/AnswerMessage.h"

namespace pointlane {

struct BrowserMessageResult;

// One message from a browser page, checked: a fixed small vocabulary of JSON objects
// {"type": ..., ...}. Whatever reaches the game server was read from one of these. Names,
// game names and titles are trimmed and composed, and refused when empty, too long or holding
// invisible characters (the text rules' checkName); cards and decks are checked against the
// table's deck by the gateway.
//
//   hello    {seat}                    the browser's seat key; the first message of a table page
//   watch    {}                        the first message of a page that only watches
//   ping     {}                        the page is still there (answered with a pong)
//   start    {name, game, deck, cards} opens the game as its facilitator; deck: a preset's id,
//                                      or "custom" with cards: [text, ...]
//   join     {name}                    sits down at the open game
//   deal     {title}                   puts up an item
//   next     {}                        puts up the agenda's next item, or a quick round
//   revote   {}                        puts the current item up again
//   play     {card}                    plays (or changes) the picked card of the current item
//   open     {}                        opens the cards
//   estimate {item, card}              records an item's final estimate
//   agenda   {text, format}            the items still to come: one per line, or a CSV file
//   settings {autoReveal, everyoneControls}
//   countdown{seconds}                 starts a countdown; 0 cancels it
//   leave    {}                        gets up (the facilitator's leave ends the game)
//
// A plain value; parsing has no side effects and is safe on any thread.
struct BrowserMessage {
    enum class Type {
        hello,
        watch,
        ping,
        start,
        join,
        deal,
        next,
        revote,
        play,
        open,
        estimate,
        agenda,
        settings,
        countdown,
        leave
    };

    // Longest text a page may send as one agenda.
    static constexpr std::size_t kMaxAgendaBytes = 60 * 1024;

    Type type = Type::hello;
    std::string seat;                // hello
    std::string name;                // start, join: checked
    std::string game;                // start: checked
    std::string deck;                // start: a preset's id or "custom"
    std::vector<std::string> cards;  // start with a custom deck, as sent
    std::string title;               // deal: checked
    std::string card;                // play, estimate: as sent
    int item = 0;                    // estimate
    std::string text;                // agenda
    bool csv = false;                // agenda: text is a CSV file
    bool autoReveal = true;          // settings
    bool everyoneControls = false;   // settings
    int seconds = 0;                 // countdown

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
