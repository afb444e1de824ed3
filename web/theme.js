// Light or dark, as it is chosen in Cockpit's frame.

const dark = window.matchMedia("(prefers-color-scheme: dark)");

function follow() {
    const chosen = localStorage.getItem("shell:style") ?? "auto";
    const isDark = chosen === "dark" || (chosen === "auto" && dark.matches);
    document.documentElement.classList.toggle("dark", isDark);
}

export function followTheme() {
    window.addEventListener("storage", event => event.key === "shell:style" && follow());
    window.addEventListener("cockpit-style", follow);
    dark.addEventListener("change", follow);
    follow();
}
