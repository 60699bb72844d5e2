-- The alert process's own bookkeeping, beside the detector's tables in the
-- same database file. The detector never reads or writes these tables;
-- 'tsanomalyctl init' creates them, and so does 'tsanomalyctl alert' when
-- they are missing.

-- Where each alert channel starts: anomalies detected before SINCE_TIME are
-- never alerted on that channel, so enabling alerts on an old database does
-- not replay its history. One row per channel, written the first time the
-- channel is seen and never changed afterwards.
CREATE TABLE IF NOT EXISTS ALERT_CHANNEL (
  CHANNEL                  TEXT    NOT NULL PRIMARY KEY,
  SINCE_TIME               INTEGER NOT NULL
);

-- One row per (anomaly, channel). STATE: 0 waiting (never sent or failing),
-- 1 delivered, 2 given up after the retry window, 3 not sent because the
-- anomaly was reported as a false positive or acknowledged first.
-- FIRST_SEEN is when the alert process found the anomaly; the retry window
-- and the age of an undelivered alert count from it.
CREATE TABLE IF NOT EXISTS ALERT_DELIVERY (
  ANOMALY_UNIQUE_ID        TEXT    NOT NULL,
  CHANNEL                  TEXT    NOT NULL,
  STATE                    INTEGER NOT NULL DEFAULT 0,
  ATTEMPTS                 INTEGER NOT NULL DEFAULT 0,
  FIRST_SEEN               INTEGER NOT NULL,
  NEXT_ATTEMPT             INTEGER NOT NULL,
  DELIVERED_TIME           INTEGER,
  LAST_ERROR               TEXT    NOT NULL DEFAULT '',
  PRIMARY KEY (ANOMALY_UNIQUE_ID, CHANNEL)
);
-- Each cycle reads a channel's alerts that are due, and the status figures
-- count them by state.
CREATE INDEX IF NOT EXISTS ALERT_DELIVERY_BY_STATE ON ALERT_DELIVERY (STATE, CHANNEL, NEXT_ATTEMPT);

-- Alerts delivered to a channel in Alertmanager's format that are still
-- firing there: ALERT is the element as posted. Once the anomaly has a
-- verdict (or is gone) the element is posted again with endsAt = now, which
-- resolves it, and the row is deleted. A table of its own, so databases
-- made before it get it by 'CREATE TABLE IF NOT EXISTS' alone.
CREATE TABLE IF NOT EXISTS ALERT_FIRING (
  ANOMALY_UNIQUE_ID        TEXT    NOT NULL,
  CHANNEL                  TEXT    NOT NULL,
  ALERT                    TEXT    NOT NULL,
  PRIMARY KEY (ANOMALY_UNIQUE_ID, CHANNEL)
);
