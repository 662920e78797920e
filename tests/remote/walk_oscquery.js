// Walks the recorder's whole OSCQuery tree with the npm package oscquery, as a remote client would, and
// prints what the test checks as one JSON object.
const { OSCQueryDiscovery } = require("oscquery");

new OSCQueryDiscovery()
    .queryNewService("127.0.0.1", Number(process.argv[2]))
    .then(service => {
        const methods = service.flat();
        const gap = methods.find(m => m.full_path === "/gap");
        const sources = methods.filter(m => m.full_path.startsWith("/source") &&
            m.arguments[0].range.vals.includes("Test Pattern 720p30"));
        console.log(JSON.stringify({
            methods: methods.length,
            oscPort: service.hostInfo.oscPort,
            gap: { access: gap.access, value: gap.arguments[0].value },
            sources: sources.length,
        }));
    })
    .catch(error => console.log(JSON.stringify({ error: String(error) })));
