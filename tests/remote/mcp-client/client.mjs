// Drives velix-mcp with the official MCP TypeScript client, as an agent's host does: it starts
// the server over stdio, initializes, lists the tools and makes the calls it is given.
//
//   node client.mjs <path of velix-mcp> <JSON array of {"name": ..., "arguments": {...}}>
//
// VELIX_HOME goes on to velix-mcp, which finds there the endpoint of the Velix under test. One
// JSON report goes to standard output for the C++ test to judge.

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport, getDefaultEnvironment } from '@modelcontextprotocol/sdk/client/stdio.js';

const [server, callsText] = process.argv.slice(2);
const transport = new StdioClientTransport({
    command: server,
    env: { ...getDefaultEnvironment(), VELIX_HOME: process.env.VELIX_HOME ?? '' },
    stderr: 'inherit',
});
const client = new Client({ name: 'velix-test-agent', version: '1.0.0' });
const report = { results: [] };
try {
    await client.connect(transport);
    report.serverVersion = client.getServerVersion();
    report.tools = (await client.listTools()).tools.map(tool => tool.name);
    await client.ping();
    for (const call of JSON.parse(callsText ?? '[]')) {
        try {
            const result = await client.callTool({ name: call.name, arguments: call.arguments ?? {} });
            report.results.push({ isError: result.isError === true, text: result.content?.[0]?.text ?? null,
                                  structured: result.structuredContent ?? null });
        } catch (error) {
            // The client raises protocol errors, such as an unknown tool, instead of returning them.
            report.results.push({ protocolError: String(error?.message ?? error) });
        }
    }
} catch (error) {
    report.failure = String(error?.stack ?? error);
} finally {
    await client.close().catch(() => {});
}
process.stdout.write(JSON.stringify(report) + '\n');
