-- Version 1: the three tables. Column order is the insert order of the records; every
-- column is NOT NULL with a default so that no read ever meets an SQL NULL. Row ids are never
-- used twice (AUTOINCREMENT): a token names its entry and session by row id, so a new link
-- must never take the id of a deleted one.
BEGIN TRANSACTION;
CREATE TABLE IF NOT EXISTS entry (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  hash TEXT NOT NULL DEFAULT '',
  project_name TEXT NOT NULL DEFAULT '',
  enabled INTEGER NOT NULL DEFAULT 1,
  owner_uid INTEGER NOT NULL DEFAULT 4294967295,
  start_at INTEGER NOT NULL DEFAULT 0,
  expire_at INTEGER NOT NULL DEFAULT 0,
  expire_times INTEGER NOT NULL DEFAULT 0,
  use_count INTEGER NOT NULL DEFAULT 0,
  auto_gc INTEGER NOT NULL DEFAULT 1,
  data TEXT NOT NULL DEFAULT '{}'
);
CREATE UNIQUE INDEX IF NOT EXISTS entry_hash ON entry (hash);
CREATE TABLE IF NOT EXISTS session (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  session_id TEXT NOT NULL DEFAULT '',
  uid INTEGER NOT NULL DEFAULT 4294967295,
  ip TEXT NOT NULL DEFAULT '',
  timeout INTEGER NOT NULL DEFAULT 0
);
CREATE UNIQUE INDEX IF NOT EXISTS session_session_id ON session (session_id);
CREATE TABLE IF NOT EXISTS token (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  entry_id INTEGER NOT NULL DEFAULT 0,
  session_id INTEGER NOT NULL DEFAULT 0,
  timeout INTEGER NOT NULL DEFAULT 0
);
PRAGMA user_version = 1;
COMMIT;
