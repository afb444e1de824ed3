// The rules for web/ and for its unit tests.

const rules = Object.fromEntries([
    "array-callback-return", "block-scoped-var", "consistent-return", "constructor-super", "default-case-last",
    "dot-notation", "eqeqeq", "for-direction", "getter-return", "guard-for-in", "no-alert", "no-array-constructor",
    "no-async-promise-executor", "no-case-declarations", "no-compare-neg-zero", "no-cond-assign", "no-console", "no-const-assign",
    "no-constant-condition", "no-debugger", "no-dupe-args", "no-dupe-else-if", "no-dupe-keys", "no-duplicate-case",
    "no-duplicate-imports", "no-else-return", "no-empty", "no-eval", "no-extend-native", "no-fallthrough", "no-func-assign",
    "no-implied-eval", "no-inner-declarations", "no-invalid-regexp", "no-lonely-if", "no-loss-of-precision",
    "no-misleading-character-class", "no-new-func", "no-param-reassign", "no-promise-executor-return", "no-prototype-builtins",
    "no-redeclare", "no-return-assign", "no-script-url", "no-self-assign", "no-self-compare", "no-sequences", "no-shadow",
    "no-sparse-arrays", "no-throw-literal", "no-undef", "no-unmodified-loop-condition", "no-unreachable",
    "no-unsafe-finally", "no-unsafe-negation", "no-unsafe-optional-chaining", "no-unused-expressions", "no-use-before-define",
    "no-useless-catch", "no-useless-concat", "no-useless-return", "no-var", "object-shorthand", "prefer-const",
    "prefer-promise-reject-errors", "prefer-template", "use-isnan", "valid-typeof",
].map(name => [name, "error"]));

const browser = ["cockpit", "document", "window", "localStorage", "clearTimeout", "setTimeout", "Node", "TextEncoder"];
const node = ["URL", "globalThis", "structuredClone"];

const globals = names => Object.fromEntries(names.map(name => [name, "readonly"]));

export default [
    {
        files: ["web/*.js"],
        languageOptions: { ecmaVersion: 2022, sourceType: "module", globals: globals(browser) },
    },
    {
        files: ["tests/web/**/*.js"],
        languageOptions: { ecmaVersion: 2022, sourceType: "module", globals: globals(node) },
    },
    {
        linterOptions: { reportUnusedDisableDirectives: "error" },
        rules: {
            ...rules,
            "no-use-before-define": ["error", { functions: false }],
            "no-unused-vars": ["error", { argsIgnorePattern: "^_", varsIgnorePattern: "^_", caughtErrorsIgnorePattern: "^_" }],
            "no-promise-executor-return": "off",
            "max-len": ["error", { code: 140, ignoreStrings: true }],
            "no-restricted-properties": ["error",
                ...["innerHTML", "outerHTML", "insertAdjacentHTML", "srcdoc"].map(property => ({ property })),
                ...["script", "file"].map(property => ({ object: "cockpit", property }))],
        },
    },
];
