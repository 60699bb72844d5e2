-- The anomaly detector's database: a queue of finished backup jobs written by
-- the backup product, the history the detector trains on, the calibrated
-- clustering radius per workload, the reported anomalies and the operators'
-- verdicts on them. The detector creates none of these tables; load this file
-- once (sqlite3 anomaly.db < anomaly_db.sql) before the first start.
--
-- Cells are written as the types below and read back by the detector as text.
-- Column order matters where the detector inserts by position (HIST_DATA,
-- DBSCAN_MODEL_PARAMS, ANOMALY_DATA).

-- The queue has a concurrent writer (the product inserts while the detector
-- reads), so readers must not block it.
PRAGMA journal_mode = WAL;

-- Pending jobs. Read whole with SELECT *, so no cell may be NULL.
CREATE TABLE IF NOT EXISTS DATA_TO_PROCESS (
  BACKUP_ID                TEXT    NOT NULL,
  BACKUP_TIME              INTEGER NOT NULL,
  CLIENT                   TEXT    NOT NULL,
  POLICY                   TEXT    NOT NULL,
  POLICY_TYPE              TEXT    NOT NULL,
  SCHEDULE_TYPE            TEXT    NOT NULL,
  SCHEDULE_NAME            TEXT    NOT NULL,
  APP_TYPE                 TEXT    NOT NULL,
  NUM_FILES                INTEGER NOT NULL,
  IMAGE_SIZE               REAL    NOT NULL,
  JOB_ID                   INTEGER NOT NULL,
  PARENT_JOB_ID            INTEGER NOT NULL,
  KB_TRANSFERRED           REAL    NOT NULL,
  START_TIME               INTEGER NOT NULL,
  END_TIME                 INTEGER NOT NULL,
  TOTAL_TIME               INTEGER NOT NULL,
  DEDUP_RATE               REAL    NOT NULL,
  USER_IDENTIFIED_CLUSTER  INTEGER NOT NULL DEFAULT 0,
  DESTINATION_STORAGE_NAME TEXT    NOT NULL,
  STREAM_NUMBER            INTEGER NOT NULL,
  ASSET_ID                 TEXT    NOT NULL,
  -- A NUL byte would cut the key short wherever it is read as text, so
  -- the job would be handled (and the history written) under another key.
  UNIQUE_KEY               TEXT    NOT NULL CHECK (instr(CAST(UNIQUE_KEY AS BLOB), x'00') = 0),
  PROCESSED_STATUS         INTEGER NOT NULL DEFAULT 0
);
-- Every update and delete addresses a queued job by its key; a second row
-- with the same key would be the same job queued twice.
CREATE UNIQUE INDEX IF NOT EXISTS DATA_TO_PROCESS_BY_KEY ON DATA_TO_PROCESS (UNIQUE_KEY);
-- Reported jobs stay in the queue (processed) until their feedback arrives;
-- the pass reads only the pending ones.
CREATE INDEX IF NOT EXISTS DATA_TO_PROCESS_BY_STATUS ON DATA_TO_PROCESS (PROCESSED_STATUS);

-- History of valid observations, inserted positionally in this column order.
-- A second insert of the same job replaces the first. Only the key is
-- required: the detector reads history through prepared statements, where a
-- NULL cell reads as empty, and a job's NaN value is stored by SQLite as NULL
-- (refusing it would leave the job to be retried for ever).
CREATE TABLE IF NOT EXISTS HIST_DATA (
  BACKUP_ID                TEXT,
  BACKUP_TIME              INTEGER,
  CLIENT                   TEXT,
  POLICY                   TEXT,
  POLICY_TYPE              TEXT,
  SCHEDULE_TYPE            TEXT,
  SCHEDULE_NAME            TEXT,
  APP_TYPE                 TEXT,
  NUM_FILES                INTEGER,
  IMAGE_SIZE               REAL,
  JOB_ID                   INTEGER,
  PARENT_JOB_ID            INTEGER,
  KB_TRANSFERRED           REAL,
  START_TIME               INTEGER,
  END_TIME                 INTEGER,
  TOTAL_TIME               INTEGER,
  DEDUP_RATE               REAL,
  MODE                     INTEGER,
  USER_IDENTIFIED_CLUSTER  INTEGER,
  DESTINATION_STORAGE_NAME TEXT,
  STREAM_NUMBER            INTEGER,
  ASSET_ID                 TEXT,
  UNIQUE_KEY               TEXT    NOT NULL UNIQUE
);
-- The storage-specific training set and the last-backup lookup: equality on
-- the whole workload key (and MODE), newest first. The feature columns ride
-- along so the training read never touches the table itself.
CREATE INDEX IF NOT EXISTS HIST_DATA_BY_WORKLOAD ON HIST_DATA (
  CLIENT, POLICY, POLICY_TYPE, APP_TYPE, SCHEDULE_TYPE, SCHEDULE_NAME, DESTINATION_STORAGE_NAME, ASSET_ID, MODE,
  BACKUP_TIME, NUM_FILES, IMAGE_SIZE, KB_TRANSFERRED, TOTAL_TIME, DEDUP_RATE, USER_IDENTIFIED_CLUSTER);
-- The fallback training set and its count ignore the storage name.
CREATE INDEX IF NOT EXISTS HIST_DATA_BY_WORKLOAD_ANY_STORAGE ON HIST_DATA (
  CLIENT, POLICY, POLICY_TYPE, APP_TYPE, SCHEDULE_TYPE, SCHEDULE_NAME, ASSET_ID,
  BACKUP_TIME, NUM_FILES, IMAGE_SIZE, KB_TRANSFERRED, USER_IDENTIFIED_CLUSTER);
-- Stream lookups ignore both storage name and asset.
CREATE INDEX IF NOT EXISTS HIST_DATA_BY_STREAM ON HIST_DATA (
  CLIENT, POLICY, POLICY_TYPE, APP_TYPE, SCHEDULE_TYPE, SCHEDULE_NAME, STREAM_NUMBER);

-- One calibrated eps per workload, inserted positionally in this order.
CREATE TABLE IF NOT EXISTS DBSCAN_MODEL_PARAMS (
  CLIENT                   TEXT    NOT NULL,
  POLICY                   TEXT    NOT NULL,
  POLICY_TYPE              TEXT    NOT NULL,
  SCHEDULE_TYPE            TEXT    NOT NULL,
  SCHEDULE_NAME            TEXT    NOT NULL,
  APP_TYPE                 TEXT    NOT NULL,
  EPS                      REAL    NOT NULL,
  CAPTURE_DATE             INTEGER NOT NULL,
  DESTINATION_STORAGE_NAME TEXT    NOT NULL,
  ASSET_ID                 TEXT    NOT NULL,
  UNIQUE (CLIENT, POLICY, POLICY_TYPE, SCHEDULE_TYPE, SCHEDULE_NAME, APP_TYPE, DESTINATION_STORAGE_NAME, ASSET_ID)
);

-- Reported anomalies, inserted positionally; a second report of the same job
-- and backup time is ignored.
CREATE TABLE IF NOT EXISTS ANOMALY_DATA (
  ANOMALY_UNIQUE_ID        TEXT    NOT NULL UNIQUE,
  ANOMALY_PAYLOAD          TEXT    NOT NULL,
  ANOMALY_STATE            INTEGER NOT NULL,
  DETECTION_KEY            TEXT    NOT NULL,
  CLIENT                   TEXT    NOT NULL,
  DETECTION_TIME           INTEGER NOT NULL
);

-- A job's outcome is written in one statement, never half: the insert that
-- takes a job into the history also takes it out of the queue, and the
-- insert that reports it also marks it processed. The detector still issues
-- its own DELETE / UPDATE afterwards (then a no-op), but a crash or a lock
-- between the two can no longer leave a job in the history and queued, to be
-- judged a second time against a history that already holds it.
CREATE TRIGGER IF NOT EXISTS HIST_DATA_TAKES_JOB_OFF_QUEUE AFTER INSERT ON HIST_DATA
BEGIN
  DELETE FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = NEW.UNIQUE_KEY;
END;
CREATE TRIGGER IF NOT EXISTS ANOMALY_DATA_MARKS_JOB_PROCESSED AFTER INSERT ON ANOMALY_DATA
BEGIN
  UPDATE DATA_TO_PROCESS SET PROCESSED_STATUS = 1 WHERE UNIQUE_KEY = NEW.DETECTION_KEY;
END;

-- Operators' verdicts (FEEDBACK 1: reported as a false positive). Read whole
-- with SELECT *, so no cell may be NULL; a consumed verdict is deleted.
CREATE TABLE IF NOT EXISTS ANOMALY_DATA_FEEDBACK (
  ANOMALY_UNIQUE_ID        TEXT    NOT NULL,
  FEEDBACK                 INTEGER NOT NULL
);
CREATE INDEX IF NOT EXISTS ANOMALY_DATA_FEEDBACK_BY_ID ON ANOMALY_DATA_FEEDBACK (ANOMALY_UNIQUE_ID);
CREATE INDEX IF NOT EXISTS ANOMALY_DATA_FEEDBACK_BY_VERDICT ON ANOMALY_DATA_FEEDBACK (FEEDBACK);
