#include "service/JobKey.h"

#include "contract/WorkloadKey.h"

namespace job_key {

Value cell(const Row& row, const std::string& column) {
  const auto found = row.find(column);
  return found == row.end() ? Value() : found->second;
}

Texts texts_of(const Row& row, std::initializer_list<const char*> columns) {
  Texts texts;
  texts.reserve(columns.size());
  for (const char* column : columns) {
    const auto found = row.find(column);
    texts.push_back(found == row.end() ? std::string() : found->second.text());
  }
  return texts;
}

Texts history_key(const Row& job) {
  Texts texts;
  for (const char* column : workload_key::kColumns) texts.push_back(cell(job, column).text());
  return texts;
}

Texts model_key(const Row& job) {
  return texts_of(job, {"CLIENT", "POLICY", "POLICY_TYPE", "SCHEDULE_TYPE", "SCHEDULE_NAME", "APP_TYPE",
                        "DESTINATION_STORAGE_NAME", "ASSET_ID"});
}

Texts plus(Texts head, std::initializer_list<std::string> tail) {
  head.insert(head.end(), tail);
  return head;
}

int bind_texts(Statement& st, const Texts& texts, int first) {
  for (const std::string& text : texts) {
    st.bind(first++, text);
  }
  return first;
}

}  // namespace job_key
