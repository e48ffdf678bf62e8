// The tables and columns of the system's databases, in the order rows are laid out.
#include "frame/catalogue.h"

namespace mv {
namespace {

constexpr ColumnType I = ColumnType::Int;
constexpr ColumnType V = ColumnType::Varchar;
constexpr ColumnType D = ColumnType::Datetime;
constexpr ColumnType F = ColumnType::Float;
constexpr ColumnType G = ColumnType::Image;
constexpr ColumnType B = ColumnType::Binary;

constexpr ColumnDef kBookShelfTBL[] = {
    {"T_Index", I, 0},
    {"Attribute", I, 0},
    {"BookShelfName", V, 512},
    {"OrderNo", I, 0},
};

constexpr ColumnDef kBookCommonTBL[] = {
    {"T_Index", I, 0},           {"BookName", V, 512},
    {"BookVer", I, 0},           {"Year", V, 512},
    {"BookNo", V, 512},          {"SiteName", V, 512},
    {"SitePosition", V, 512},    {"OrderName", V, 512},
    {"ContractCompany", V, 512}, {"Prefectual", V, 512},
    {"Access", V, 512},          {"Spot", V, 512},
    {"StartDate", V, 512},       {"EndDate", V, 512},
    {"Up_DateCount", I, 0},      {"MakeDate", D, 0},
    {"Up_Date", D, 0},           {"StatureColor", I, 0},
    {"BidDate", D, 0},           {"BidName", V, 512},
    {"ContractDate", D, 0},      {"SecurityNo", I, 0},
    {"Prepayment", F, 0},        {"ContractNo", I, 0},
    {"AgencyName", V, 512},      {"Enterprise", V, 512},
    {"SupervisorName", V, 512},  {"ConstructionData", D, 0},
    {"ChangeDate", D, 0},        {"ContractMoney", I, 0},
    {"ChangeMoney", I, 0},       {"ChiefName", V, 512},
    {"ManagementName", V, 512},  {"JurisdictionName", V, 512},
    {"Reserve", V, 512},
};

constexpr ColumnDef kBookShelfInfoTBL[] = {
    {"T_Index", I, 0},   {"BookShelfID", I, 0}, {"BookID", I, 0},
    {"Reserve", V, 512}, {"OrderNo", I, 0},
};

constexpr ColumnDef kBookShelfPowerTBL[] = {
    {"T_Index", I, 0},
    {"BookShelfID", I, 0},
    {"UserID", I, 0},
    {"Reserve", V, 512},
};

constexpr ColumnDef kCommonTBL[] = {
    {"T_Index", I, 0},
    {"DataKind", I, 0},
    {"DataName", V, 512},
    {"AddInfo", V, 512},
};

constexpr ColumnDef kUserInfoTBL[] = {
    {"T_Index", I, 0},
    {"UserName", V, 512},
    {"Password", V, 512},
    {"UserAttribute", I, 0},
};

constexpr ColumnDef kSystemInfoTBL[] = {
    {"T_Index", I, 0}, {"TblName", V, 512}, {"RecodCount", I, 0},
    {"NextID", I, 0},  {"Group1", V, 512},  {"Group2", V, 512},
};

constexpr ColumnDef kSpcificationTBL[] = {
    {"T_Index", I, 0},   {"SpcificationID", I, 0}, {"SpcificationName", V, 512},
    {"Attribute", I, 0}, {"Group1", V, 512},
};

constexpr ColumnDef kTrafficTBL[] = {
    {"T_Index", I, 0},       {"SpcificationID", I, 0}, {"TrafficID", I, 0},
    {"TrafficName", V, 512}, {"Attribute", I, 0},      {"Group1", V, 512},
};

constexpr ColumnDef kDBDivisionTBL[] = {
    {"T_Index", I, 0},
    {"DBDivision", I, 0},
    {"Group1", V, 512},
};

constexpr ColumnDef kViewAttributeTBL[] = {
    {"T_Index", I, 0},   {"AttributeName", V, 512}, {"AttributeType", I, 0},
    {"OfferInfo", I, 0}, {"ELLinkID", I, 0},
};

constexpr ColumnDef kViewItemTBL[] = {
    {"T_Index", I, 0},    {"ViewAttriID", I, 0}, {"ViewItemID", I, 0},
    {"ItemName", V, 512}, {"ItemName2", V, 512}, {"SortNo", I, 0},
};

constexpr ColumnDef kViewManageTBL[] = {
    {"T_Index", I, 0},
    {"ViewName", V, 512},
    {"OfferInfo", I, 0},
};

constexpr ColumnDef kViewDataTBL[] = {
    {"T_Index", I, 0},
    {"ViewManageID", I, 0},
    {"ViewAttriID", I, 0},
    {"SortNo", I, 0},
};

constexpr ColumnDef kFigureTBL[] = {
    {"T_Index", I, 0},           {"SpcificationID", I, 0}, {"TrafficID", I, 0},
    {"Figure1ID", V, 512},       {"Figure2ID", V, 512},    {"Figure3ID", V, 512},
    {"ServerID", V, 256},        {"Up_DateCount", I, 0},   {"Attribute", I, 0},
    {"RealityDataInfo", V, 512}, {"ImgFType", I, 0},       {"FileName", V, 128},
    {"RealityData", G, 0},
};

constexpr ColumnDef kFigureTBL2[] = {
    {"T_Index", I, 0},      {"SpcificationID", I, 0},    {"TrafficID", I, 0},
    {"Figure1ID", V, 512},  {"Figure2ID", V, 512},       {"Figure3ID", V, 512},
    {"Figure4ID", V, 512},  {"Figure5ID", V, 512},       {"Figure6ID", V, 512},
    {"Figure7ID", V, 512},  {"Figure8ID", V, 512},       {"Figure9ID", V, 512},
    {"Figure10ID", V, 512}, {"Figure11ID", V, 512},      {"Figure12ID", V, 512},
    {"Figure13ID", V, 512}, {"Figure14ID", V, 512},      {"Figure15ID", V, 512},
    {"Figure16ID", V, 512}, {"ServerID", V, 256},        {"Up_DateCount", I, 0},
    {"Attribute", I, 0},    {"RealityDataInfo", V, 512}, {"ImgFType", I, 0},
    {"FileName", V, 128},
};

constexpr ColumnDef kValueTBL2[] = {
    {"T_Index", I, 0},           {"DataName", V, 512}, {"Up_DateCount", I, 0},
    {"Up_Date", D, 0},           {"AplName", V, 512},  {"PrefectualAppoint", I, 0},
    {"Various", V, 512},         {"Group1", V, 512},   {"Group2", V, 512},
    {"Group3", V, 512},          {"Group4", V, 512},   {"Group5", V, 512},
    {"Group6", V, 512},          {"Group7", V, 512},   {"Group8", V, 512},
    {"Group9", V, 512},          {"Group10", V, 512},  {"Group11", V, 512},
    {"Group12", V, 512},         {"Group13", V, 512},  {"Group14", V, 512},
    {"Group15", V, 512},         {"Group16", V, 512},  {"Group17", V, 512},
    {"Group18", V, 512},         {"Group19", V, 512},  {"Group20", V, 512},
    {"Group21", V, 512},         {"Group22", V, 512},  {"Group23", V, 512},
    {"Group24", V, 512},         {"Group25", V, 512},  {"Group26", V, 512},
    {"Group27", V, 512},         {"Group28", V, 512},  {"Group29", V, 512},
    {"Group30", V, 512},         {"Group31", V, 512},  {"Group32", V, 512},
    {"Group33", V, 512},         {"ServerID", V, 256}, {"Attribute", I, 0},
    {"RealityDataInfo", V, 512}, {"ImgFType", I, 0},   {"FileName", V, 128},
};

constexpr ColumnDef kFormTBL[] = {
    {"T_Index", I, 0},    {"DataName", V, 512}, {"Up_DateCount", I, 0},
    {"Up_Date", D, 0},    {"AplName", V, 512},  {"PrefectualAppoint", I, 0},
    {"Various", V, 512},  {"Group1", V, 512},   {"Group2", V, 512},
    {"Group3", V, 512},   {"Group4", V, 512},   {"Group5", V, 512},
    {"ServerID", V, 256}, {"Attribute", I, 0},  {"RealityDataInfo", V, 512},
    {"ImgFType", I, 0},   {"FileName", V, 128}, {"RealityData", G, 0},
};

constexpr ColumnDef kUserBookTbl[] = {
    {"T_Index", I, 0},          {"BookName", V, 512},
    {"BookVer", I, 0},          {"Year", V, 512},
    {"BookNo", V, 512},         {"SiteName", V, 512},
    {"SitePosition", V, 512},   {"ContractCompany", V, 512},
    {"OrderName", V, 512},      {"Prefectual", V, 512},
    {"Access", V, 512},         {"Spot", V, 512},
    {"StartDate", V, 512},      {"EndDate", V, 512},
    {"Up_DateCounter", I, 0},   {"MakeDate", D, 0},
    {"Up_Date", D, 0},          {"StatureColor", I, 0},
    {"BidDate", D, 0},          {"BidName", V, 512},
    {"ContractDate", D, 0},     {"SecurityNo", I, 0},
    {"Prepayment", F, 0},       {"ContractNo", I, 0},
    {"AgencyName", V, 512},     {"Enterprise", V, 512},
    {"SupervisorName", V, 512}, {"ConstructionData", D, 0},
    {"ChangeDate", D, 0},       {"ContractMoney", I, 0},
    {"ChangeMoney", I, 0},      {"ChiefName", V, 512},
    {"ManagementName", V, 512}, {"JurisdictionName", V, 512},
    {"Reserve", V, 512},
};

constexpr ColumnDef kTagDispTBL[] = {
    {"T_Index", I, 0},  {"TagName", V, 512}, {"TagID", I, 0},   {"Attribute", I, 0},
    {"Relation", I, 0}, {"T_Order", I, 0},   {"UpTagID", I, 0},
};

constexpr ColumnDef kTagPageTBL[] = {
    {"T_Index", I, 0},          {"Up_DateCounter", I, 0},   {"Up_Date", D, 0},
    {"TagName", V, 512},        {"TagNameAttribute", I, 0}, {"TagRenewAttribute", I, 0},
    {"TagMakeAttribute", I, 0}, {"Relation", I, 0},         {"UpTagID", I, 0},
    {"DispDataID", I, 0},       {"MasterDispType", I, 0},   {"ThumbnailID", I, 0},
    {"AplAttribute", I, 0},     {"TagStartUpApl", V, 512},  {"SrcFileID", I, 0},
    {"CadAttribute", I, 0},     {"DynaCadFileID", I, 0},    {"PageCount", I, 0},
    {"TagAplOption", V, 512},   {"TemplateName", V, 512},   {"RefFileInfo", I, 0},
    {"Kensetu", I, 0},          {"PdfConvert", I, 0},       {"NewRelation", I, 0},
};

constexpr ColumnDef kTagAttributeTBL[] = {
    {"T_Index", I, 0},
    {"TagPageID", I, 0},
    {"ViewAttributeID", I, 0},
    {"Value", V, 512},
};

constexpr ColumnDef kImageDataTBL[] = {
    {"T_Index", I, 0}, {"TagID", I, 0},     {"Up_DateCounter", I, 0}, {"Attribute", I, 0},
    {"GroupNo", I, 0}, {"Various", V, 512}, {"SubIndex", I, 0},       {"ImageDataInfo", V, 512},
    {"Up_Date", D, 0}, {"ImgFType", I, 0},  {"FileName", V, 128},     {"RealityData", G, 0},
    {"Reserve", B, 0},
};

constexpr ColumnDef kRouteDataTBL[] = {
    {"T_Index", I, 0},    {"TagID", I, 0},       {"Up_DateCount", I, 0},      {"Attribute", I, 0},
    {"Group1", V, 512},   {"Group2", V, 512},    {"Group3", V, 512},          {"Group4", V, 512},
    {"Group5", V, 512},   {"Various", V, 512},   {"RealityDataInfo", V, 512}, {"ImgFType", I, 0},
    {"FileName", V, 128}, {"RealityData", G, 0}, {"Reserve", B, 0},
};

constexpr ColumnDef kAplIOInfoTBL[] = {
    {"T_Index", I, 0}, {"Various", I, 0}, {"Group1", V, 512}, {"Group2", V, 512}, {"Info", V, 512},
};

constexpr TableDef kTables[] = {
    {DbKind::System, "BookShelfTBL", kBookShelfTBL},
    {DbKind::System, "BookCommonTBL", kBookCommonTBL},
    {DbKind::System, "BookShelfInfoTBL", kBookShelfInfoTBL},
    {DbKind::System, "BookShelfPowerTBL", kBookShelfPowerTBL},
    {DbKind::System, "CommonTBL", kCommonTBL},
    {DbKind::System, "UserInfoTBL", kUserInfoTBL},
    {DbKind::System, "SystemInfoTBL", kSystemInfoTBL},
    {DbKind::System, "SpcificationTBL", kSpcificationTBL},
    {DbKind::System, "TrafficTBL", kTrafficTBL},
    {DbKind::System, "DBDivisionTBL", kDBDivisionTBL},
    {DbKind::System, "ViewAttributeTBL", kViewAttributeTBL},
    {DbKind::System, "ViewItemTBL", kViewItemTBL},
    {DbKind::System, "ViewManageTBL", kViewManageTBL},
    {DbKind::System, "ViewDataTBL", kViewDataTBL},
    {DbKind::Common, "FigureTBL", kFigureTBL},
    {DbKind::Common, "FigureTBL2", kFigureTBL2},
    {DbKind::Common, "ValueTBL2", kValueTBL2},
    {DbKind::Common, "FormTBL", kFormTBL},
    {DbKind::Common, "SystemInfoTBL", kSystemInfoTBL},
    {DbKind::Book, "UserBookTbl", kUserBookTbl},
    {DbKind::Book, "TagDispTBL", kTagDispTBL},
    {DbKind::Book, "TagPageTBL", kTagPageTBL},
    {DbKind::Book, "TagAttributeTBL", kTagAttributeTBL},
    {DbKind::Book, "ImageDataTBL", kImageDataTBL},
    {DbKind::Book, "RouteDataTBL", kRouteDataTBL},
    {DbKind::Book, "AplIOInfoTBL", kAplIOInfoTBL},
    {DbKind::Book, "SystemInfoTBL", kSystemInfoTBL},
    {DbKind::Book, "DBDivisionTBL", kDBDivisionTBL},
};

}  // namespace

const ColumnDef* TableDef::find(std::string_view column) const {
  for (const ColumnDef& c : columns) {
    if (column == c.name) return &c;
  }
  return nullptr;
}

std::span<const TableDef> catalogue() { return kTables; }

const TableDef* findTable(DbKind db, std::string_view name) {
  for (const TableDef& t : kTables) {
    if (t.db == db && name == t.name) return &t;
  }
  return nullptr;
}

int typeCode(ColumnType type) {
  switch (type) {
    case ColumnType::Int:
      return 1;
    case ColumnType::Varchar:
      return 2;
    case ColumnType::Datetime:
      return 3;
    case ColumnType::Image:
      return 4;
    case ColumnType::Binary:
      return 5;
    case ColumnType::Float:
      break;
  }
  return 0;
}

const char* typeWord(ColumnType type) {
  switch (type) {
    case ColumnType::Int:
      return "int";
    case ColumnType::Varchar:
      return "varchar";
    case ColumnType::Datetime:
      return "datetime";
    case ColumnType::Float:
      return "float";
    case ColumnType::Image:
      return "image";
    case ColumnType::Binary:
      return "binary";
  }
  return "";
}

}  // namespace mv
