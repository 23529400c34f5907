#pragma once

struct sqlite3;

/// Registers the auxiliary function "match_rank" of the full-text index on `connection`.
///
/// A search is always one phrase, so FTS5's own bm25 orders rows only by how often the phrase
/// occurs in a row against the row's length: its inverse document frequency is the same for
/// every row. bm25 nevertheless works that frequency out by reading every match in the index
/// before it ranks the first row, which for a common word or phrase costs tens of
/// milliseconds. "match_rank" is bm25 (k1 1.2, b 0.75, every column weighted 1) without that
/// constant factor: the same order, at a few microseconds a row. Lower is better, as with
/// bm25. Throws DatabaseError when the connection has no FTS5.
void registerMatchRank(sqlite3 *connection);
