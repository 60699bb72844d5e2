#include "operator/AnomalyHandle.h"

#include <gtest/gtest.h>

#include <string>

#include "operator/AnomalyStore.h"
#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "tests/support/TempDir.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using tsanomaly_test::TempDir;

TEST(AnomalyHandle, AShortIdWithoutControlCharactersIsItsOwnHandle) {
  EXPECT_EQ(anomaly_handle::of("143509_1728014904"), "143509_1728014904");
  EXPECT_EQ(anomaly_handle::of("Kundé/7 x_1"), "Kundé/7 x_1");
  const std::string longest(anomaly_handle::kLongestPlainId, '7');
  EXPECT_EQ(anomaly_handle::of(longest), longest);
}

TEST(AnomalyHandle, AnyOtherIdIsNamedByItsDigest) {
  // SHA-256 of "abc", a published test vector.
  EXPECT_EQ(anomaly_handle::digest_of("abc"), "~ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  for (const std::string& id : {std::string("7\r\n_1000"), std::string(9000, '9') + "_1", std::string(),
                               std::string(anomaly_handle::kLongestPlainId + 1, '7'), std::string("tab\t_1"),
                               std::string("del\x7f_1")}) {
    const std::string handle = anomaly_handle::of(id);
    EXPECT_EQ(handle, anomaly_handle::digest_of(id));
    EXPECT_TRUE(anomaly_handle::is_digest(handle)) << handle;
  }
  EXPECT_NE(anomaly_handle::of("7\r\n_1000"), anomaly_handle::of("7\n\r_1000"));
}

TEST(AnomalyHandle, AnIdShapedLikeADigestIsDigestedSoNoHandleNamesTwoIds) {
  const std::string shaped = anomaly_handle::digest_of("abc");
  EXPECT_EQ(anomaly_handle::of(shaped), anomaly_handle::digest_of(shaped));
  EXPECT_FALSE(anomaly_handle::is_digest("~" + std::string(63, 'a')));
  EXPECT_FALSE(anomaly_handle::is_digest("~" + std::string(64, 'A')));
  EXPECT_FALSE(anomaly_handle::is_digest("x" + std::string(64, 'a')));
}

TEST(AnomalyHandle, TheStoreResolvesEveryHandleToItsId) {
  TempDir dir;
  const std::string path = dir.file("anomaly.db");
  const std::string ids[] = {"7\r\n_1000", std::string(9000, '9') + "_1", "8_1000", anomaly_handle::digest_of("x")};
  {
    DBAccess db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.execute_query(anomaly_schema::anomaly_db_sql());
    for (const std::string& id : ids) {
      Statement st(db.handle, "INSERT INTO ANOMALY_DATA (ANOMALY_UNIQUE_ID, ANOMALY_PAYLOAD, ANOMALY_STATE, "
                              "DETECTION_KEY, CLIENT, DETECTION_TIME) VALUES (?, '{}', 0, 'k', 'c', 1)");
      st.bind(1, id);
      db.execute_query_prepared(st);
    }
  }
  const AnomalyStore store(path);
  for (const std::string& id : ids) EXPECT_EQ(store.id_of_handle(anomaly_handle::of(id)), id);
  EXPECT_EQ(store.id_of_handle(anomaly_handle::digest_of("not there")), std::nullopt);
  EXPECT_EQ(store.id_of_handle("not there"), "not there");
}
