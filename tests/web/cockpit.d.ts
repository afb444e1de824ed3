// What the page uses of Cockpit.

interface CockpitProcess {
    stream(take: (piece: string) => void): CockpitProcess;
    done(take: (out: string, message: string) => void): CockpitProcess;
    fail(take: (error: { problem: string | null, exit_status: number | null, message: string }, out: string) => void): CockpitProcess;
    close(problem?: string): void;
}

interface CockpitPermission {
    allowed: boolean | null;
    addEventListener(name: "changed", take: () => void): void;
}

declare const cockpit: {
    language: string;
    gettext(text: string): string;
    ngettext(one: string, many: string, count: number): string;
    spawn(words: string[], options: { superuser?: "try" | "require", err?: "message", environ?: string[] }): CockpitProcess;
    permission(options: { admin: boolean }): CockpitPermission;
};
