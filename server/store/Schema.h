// The tables of the store, as migrations written once for both engines: each
// takes the engine's words for an id column, an integer and the like.
#pragma once

#include <string>

namespace rd::store::sql {

std::string schema_v1(const std::string& id_column, const std::string& integer);
std::string schema_v2(const std::string& id_column, const std::string& integer);
std::string schema_v3(const std::string& integer);
std::string schema_v4();
std::string schema_v5(const std::string& id_column, const std::string& created);
std::string schema_v6(const std::string& integer);
std::string schema_voice_rows();          // version 7 on SQLite, 9 on PostgreSQL
std::string schema_v7_functions();        // PostgreSQL only
std::string schema_v8_batches();          // PostgreSQL only
std::string schema_v10_comment_pushes();  // PostgreSQL only
std::string schema_v11_plans_kept();      // PostgreSQL only
std::string schema_v12_comments_checked();  // PostgreSQL only

}  // namespace rd::store::sql
