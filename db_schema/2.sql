-- Version 2: the indexes of the stores' look-ups and purges, so that no visitor request
-- scans a table. No foreign keys: a token may outlive its entry or session.
BEGIN TRANSACTION;
CREATE INDEX IF NOT EXISTS token_session_entry ON token (session_id, entry_id);
CREATE INDEX IF NOT EXISTS token_entry ON token (entry_id);
CREATE INDEX IF NOT EXISTS token_timeout ON token (timeout);
CREATE INDEX IF NOT EXISTS session_timeout ON session (timeout);
CREATE INDEX IF NOT EXISTS entry_owner_project ON entry (owner_uid, project_name);
CREATE INDEX IF NOT EXISTS entry_expire_at ON entry (expire_at);
PRAGMA user_version = 2;
COMMIT;
