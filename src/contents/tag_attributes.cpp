// The attribute values of a book's tags: TagAttributeTBL, run through the family of the view
// tables on the book's database, with -1 for a failure and the code in lastError.
#include "contents/views.h"
#include "frame/connection.h"

namespace {

// lastError cleared, kNoLink without a link, -1 for a missing argument; else the member's code
// as 0 or -1.
template <typename Member>
int tagAttributeCall(bool argumentsGiven, Member member) {
  auto& c = mv::connection();
  c.lastError = 0;
  if (c.currentServer == nullptr) {
    c.lastError = mv::kNoLink;
    return -1;
  }
  if (!argumentsGiven) return -1;
  mv::ViewTables tables;
  return member(tables, *mv::familyTable(mv::kTagAttributeKind)) == 0 ? 0 : -1;
}

}  // namespace

extern "C" {

MVAPI int MVAddTagAttribute(const char* databaseName, TagAttributeRecord* info) {
  return tagAttributeCall(databaseName && info, [&](mv::ViewTables& v, const mv::FamilyTable& t) {
    return v.write(t, databaseName, info, true);
  });
}

MVAPI int MVUpdateTagAttribute(const char* databaseName, TagAttributeRecord* info) {
  return tagAttributeCall(databaseName && info, [&](mv::ViewTables& v, const mv::FamilyTable& t) {
    return v.write(t, databaseName, info, false);
  });
}

MVAPI int MVGetTagAttributeList(const char* databaseName, int32_t tagPageID,
                                TagAttributeRecord* records, int32_t* count) {
  return tagAttributeCall(databaseName && count && (records || *count <= 0),
                          [&](mv::ViewTables& v, const mv::FamilyTable& t) {
                            return v.list(t, databaseName, tagPageID, records, count);
                          });
}

MVAPI int MVDeleteTagAttribute(const char* databaseName, int32_t tIndex) {
  return tagAttributeCall(databaseName != nullptr,
                          [&](mv::ViewTables& v, const mv::FamilyTable& t) {
                            return v.remove(t, databaseName, tIndex);
                          });
}

}  // extern "C"
