-- The Pointlane database: games, their deals, the deals' elections and the known players.
-- Every table has an integer primary key that SQLite assigns on insert (the row id).

CREATE TABLE Game (
    id    INTEGER PRIMARY KEY,
    name  TEXT NOT NULL,
    date  TEXT NOT NULL,
    admin TEXT NOT NULL
);

CREATE TABLE Deal (
    id     INTEGER PRIMARY KEY,
    gameId INTEGER NOT NULL REFERENCES Game (id),
    name   TEXT NOT NULL
);

CREATE TABLE Election (
    id         INTEGER PRIMARY KEY,
    dealId     INTEGER NOT NULL REFERENCES Deal (id),
    playerName TEXT NOT NULL,
    symbol     TEXT NOT NULL
);

CREATE TABLE PlayerInfo (
    id      INTEGER PRIMARY KEY,
    name    TEXT NOT NULL,
    address TEXT NOT NULL
);
