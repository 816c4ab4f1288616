// The platform calls the module relies on: their contracts, not their code.
#include <gtest/gtest.h>

#include <string>

#include "vela/vlib_error.h"
#include "vela/vlib_szhash.h"
#include "vela/vlib_szlist.h"
#include "vela/webapi.h"

namespace {

TEST(SzList, PushGrowsBeyondTheCapacityAndKeepsEveryString) {
  PVLIBSZLIST list = VLIBCSzListAlloc(2);
  ASSERT_NE(nullptr, list);
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(i, VLIBCSzListPush(&list, ("item" + std::to_string(i)).c_str()));
  }
  EXPECT_EQ(100, list->nItem);
  EXPECT_GE(list->nAlloc, 100);
  EXPECT_STREQ("item0", VLIBCSzListGet(list, 0));
  EXPECT_STREQ("item99", VLIBCSzListGet(list, 99));
  EXPECT_EQ(nullptr, VLIBCSzListGet(list, 100));
  EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet());
  EXPECT_EQ(nullptr, VLIBCSzListGet(list, -1));
  EXPECT_EQ(-1, VLIBCSzListPush(&list, nullptr));

  const int capacity = list->nAlloc;
  EXPECT_EQ(0, VLIBCSzListRemoveAll(list));
  EXPECT_EQ(0, list->nItem);
  EXPECT_EQ(capacity, list->nAlloc);
  EXPECT_EQ(0, VLIBCSzListPush(&list, "again"));
  VLIBCSzListFree(list);
  VLIBCSzListFree(nullptr);
}

bool RefuseShort(const std::string& s) { return s.size() > 2; }
bool RefuseFalse(const bool& b) { return b; }

TEST(APIRequest, AParameterIsInvalidWhenMissingMistypedOrRefused) {
  Json::Value params;
  Json::Reader().parse(R"({"s":"abc","t":"x","n":5,"b":false,"o":{"k":1},"a":[1]})", params, false);
  const VELA::APIRequest request(params);
  const auto required = VELA::APIRequest::PARAM_REQUIRED;

  EXPECT_FALSE(request.GetAndCheckString("s", required, RefuseShort).IsInvalid());
  EXPECT_EQ("abc", request.GetAndCheckString("s", required, nullptr).Get());
  EXPECT_TRUE(request.GetAndCheckString("t", required, RefuseShort).IsInvalid());
  EXPECT_TRUE(request.GetAndCheckString("n", required, nullptr).IsInvalid());
  EXPECT_TRUE(request.GetAndCheckString("missing", required, nullptr).IsInvalid());
  EXPECT_FALSE(request.GetAndCheckString("missing", VELA::APIRequest::PARAM_OPTIONAL, nullptr).IsInvalid());

  EXPECT_FALSE(request.GetAndCheckBool("b", required, nullptr).IsInvalid());
  EXPECT_TRUE(request.GetAndCheckBool("b", required, RefuseFalse).IsInvalid());
  EXPECT_TRUE(request.GetAndCheckBool("n", required, nullptr).IsInvalid());

  EXPECT_FALSE(request.GetAndCheckObject("o", required, nullptr).IsInvalid());
  EXPECT_TRUE(request.GetAndCheckObject("a", required, nullptr).IsInvalid());
  EXPECT_FALSE(request.GetAndCheckArray("a", required, nullptr).IsInvalid());
  const auto mistyped = request.GetAndCheckArray("o", required, nullptr);
  EXPECT_TRUE(mistyped.IsInvalid());
  EXPECT_TRUE(mistyped.Get().isNull()) << "an unusable parameter yields no value";

  const VELA::APIRequest notAnObject(Json::Value("text"));
  EXPECT_TRUE(notAnObject.GetAndCheckString("s", required, nullptr).IsInvalid());
}

}  // namespace
