cockpit.locale({
    "": { "plural-forms": n => n !== 1, "language": "de", "language-direction": "ltr" },
    "Plugged storage": [null, "Eingesteckte Datenträger"],
});
