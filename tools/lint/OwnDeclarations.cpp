// A clang-tidy plugin that restricts the matchers to declarations outside system headers. Otherwise they
// visit some 180,000 lines of Qt, GoogleTest and the standard library per file, only for clang-tidy to
// discard what they find there.
#include <clang/AST/ASTConsumer.h>
#include <clang/AST/ASTContext.h>
#include <clang/AST/DeclBase.h>
#include <clang/Frontend/FrontendPluginRegistry.h>

#include <memory>
#include <vector>

namespace {

class OwnDeclarations : public clang::ASTConsumer
{
public:
    bool HandleTopLevelDecl(clang::DeclGroupRef group) override
    {
        for (clang::Decl* declaration : group) {
            const clang::SourceManager& sources = declaration->getASTContext().getSourceManager();
            if (!sources.isInSystemHeader(sources.getExpansionLoc(declaration->getLocation())))
                m_declarations.push_back(declaration);
        }
        return true;
    }

    void HandleTranslationUnit(clang::ASTContext& context) override
    {
        context.setTraversalScope(m_declarations);
    }

private:
    std::vector<clang::Decl*> m_declarations;
};

class RestrictToOwnDeclarations : public clang::PluginASTAction
{
protected:
    std::unique_ptr<clang::ASTConsumer> CreateASTConsumer(clang::CompilerInstance&, llvm::StringRef) override
    {
        return std::make_unique<OwnDeclarations>();
    }

    bool ParseArgs(const clang::CompilerInstance&, const std::vector<std::string>&) override { return true; }

    ActionType getActionType() override { return AddBeforeMainAction; }
};

const clang::FrontendPluginRegistry::Add<RestrictToOwnDeclarations>
    registration("own-declarations", "restricts matchers to declarations outside of system headers");

} // namespace
