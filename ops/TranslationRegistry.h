class TranslationRegistry {
 public:
  using TensorList = std::vector<std::shared_ptr<IrTensor>>;
  using Creator = std::function<std::shared_ptr<ops::IrOp>(
      const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
      const TensorList& inputs, const TensorList& outputs)>;
  static TranslationRegistry& instance();
  // Always true, so that a file-scope static can be initialised by one call.
  bool registerTranslationMethod(const std::string& type, const Creator& creator, bool allowOverwrite);
  std::shared_ptr<ops::IrOp> applyMethod(const std::string& type, const std::string& name,
                                         const std::shared_ptr<IrAttributes>& attributes,
                                         const TensorList& inputs, const TensorList& outputs);
  bool hasMethod(const std::string& type);
};
