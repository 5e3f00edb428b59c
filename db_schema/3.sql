-- Version 3: who opened a link. The gate writes one row for each successful visitor login
-- (when, from which address, with which account for an account link); each link keeps its
-- 20 latest, and its rows go with it.
BEGIN TRANSACTION;
CREATE TABLE IF NOT EXISTS visit (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  entry_id INTEGER NOT NULL,
  at INTEGER NOT NULL,
  ip TEXT NOT NULL DEFAULT '',
  account TEXT NOT NULL DEFAULT ''
);
CREATE INDEX IF NOT EXISTS visit_entry ON visit (entry_id, id);
CREATE TRIGGER IF NOT EXISTS entry_visits AFTER DELETE ON entry
BEGIN
  DELETE FROM visit WHERE entry_id = OLD.id;
END;
CREATE TRIGGER IF NOT EXISTS visit_latest AFTER INSERT ON visit
BEGIN
  DELETE FROM visit WHERE entry_id = NEW.entry_id AND id <= (
    SELECT id FROM visit WHERE entry_id = NEW.entry_id ORDER BY id DESC LIMIT 1 OFFSET 20);
END;
PRAGMA user_version = 3;
COMMIT;
