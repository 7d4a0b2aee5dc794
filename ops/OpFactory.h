class OpParam {
 public:
  enum Tag : std::int32_t { None = 0, Bool = 1, Float = 2, Int32 = 3, Uint8 = 4, Uint32 = 5, String = 6, Uint32List = 7 };
  OpParam();
  OpParam(bool value);
  OpParam(float value);
  OpParam(std::uint8_t value);
  OpParam(std::int32_t value);   // a plain literal such as 13 lands HERE: write 13u for unsigned parameters
  OpParam(std::uint32_t value);
  OpParam(const std::string& value);
  OpParam(const char* value);    // else a literal becomes bool
  OpParam(const std::vector<std::uint32_t>& value);
  OpParam(double value) = delete;
  Tag tag = None;
  // One field per kind. The constructor sets exactly one; the others stay zero or empty, and a
  // factory that reads another field than the one that was set reads that zero.
  bool boolValue = false;
  float floatValue = 0.0f;
  std::uint8_t uint8Value = 0;
  std::int32_t int32Value = 0;
  std::uint32_t uint32Value = 0;
  std::string stringValue;
  std::vector<std::uint32_t> listValue;
};
using OpParams = std::unordered_map<std::string, OpParam>;
std::shared_ptr<ops::IrOp> createOp(const std::string& opType, const std::string& opName, const OpParams& params);
