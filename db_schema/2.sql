-- Version 2: the indexes of the stores' look-ups and purges, so that no visitor request
-- scans a table, and the triggers that delete a link's or a session's tokens in the same
-- statement that deletes the link or the session (by any path: a store, a purge, by hand), so
-- that no token outlives what it joins.
BEGIN TRANSACTION;
CREATE INDEX IF NOT EXISTS token_session_entry ON token (session_id, entry_id);
CREATE INDEX IF NOT EXISTS token_entry ON token (entry_id);
CREATE INDEX IF NOT EXISTS token_timeout ON token (timeout);
CREATE INDEX IF NOT EXISTS session_timeout ON session (timeout);
CREATE INDEX IF NOT EXISTS entry_owner_project ON entry (owner_uid, project_name);
CREATE INDEX IF NOT EXISTS entry_expire_at ON entry (expire_at);
CREATE TRIGGER IF NOT EXISTS entry_tokens AFTER DELETE ON entry
BEGIN
  DELETE FROM token WHERE entry_id = OLD.id;
END;
CREATE TRIGGER IF NOT EXISTS session_tokens AFTER DELETE ON session
BEGIN
  DELETE FROM token WHERE session_id = OLD.id;
END;
PRAGMA user_version = 2;
COMMIT;
